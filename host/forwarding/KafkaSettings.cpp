#include "host/forwarding/KafkaSink.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

constexpr std::array<std::string_view, 8> secretProperties = {"sasl.password",
                                                              "sasl.oauthbearer.config",
                                                              "sasl.oauthbearer.client.secret",
                                                              "ssl.key.password",
                                                              "ssl.key.pem",
                                                              "ssl_key",
                                                              "ssl.keystore.password",
                                                              "ssl_keystore"};

std::string trimmed(std::string_view text) {
    constexpr const char* blanks = " \t\r";
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(begin, text.find_last_not_of(blanks) - begin + 1));
}

// Name and value; the name is empty if the text has another form.
std::pair<std::string, std::string> split(std::string_view assignment) {
    const std::size_t equals = assignment.find('=');
    if (equals == std::string_view::npos) {
        return {};
    }
    return {trimmed(assignment.substr(0, equals)), trimmed(assignment.substr(equals + 1))};
}

} // namespace

void KafkaSettings::readFile(const std::string& path) {
    std::ifstream file(path);
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        const std::string text = trimmed(line);
        if (text.empty() || text.front() == '#') {
            continue;
        }
        auto [name, value] = split(text);
        if (name.empty()) {
            // Not the text: it may be half of a secret.
            throw std::runtime_error(path + ":" + std::to_string(number) +
                                     ": expected a property as name=value");
        }
        m_properties[name] = value;
    }
    if (!file.eof()) {
        throw std::runtime_error("cannot read " + path + ": " +
                                 std::generic_category().message(errno));
    }
}

void KafkaSettings::set(const std::string& assignment) {
    auto [name, value] = split(assignment);
    if (name.empty()) {
        throw std::runtime_error("expected a Kafka property as name=value");
    }
    if (std::find(secretProperties.begin(), secretProperties.end(), name) !=
        secretProperties.end()) {
        throw std::runtime_error("the Kafka property " + name +
                                 " is secret: it belongs into a file that others cannot read");
    }
    m_properties[name] = value;
}
