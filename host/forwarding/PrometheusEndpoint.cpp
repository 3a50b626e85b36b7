#include "host/forwarding/PrometheusEndpoint.h"

#include "host/forwarding/PrometheusCollector.h"
#include "host/forwarding/Record.h"

#include <prometheus/exposer.h>

#include <charconv>
#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr const char* loopback = "127.0.0.1";

struct Address {
    std::string host;
    unsigned int port;
};

// The web server takes more than an address: several ones, files, letters behind the port.
bool isHost(std::string_view host) {
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        return host.substr(1, host.size() - 2).find_first_not_of("0123456789abcdefABCDEF:.") ==
               std::string_view::npos;
    }
    return !host.empty() && host.find_first_not_of("0123456789.") == std::string_view::npos;
}

Address parse(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    const bool hasHost = colon != std::string::npos && colon > 0;
    std::string host = hasHost ? text.substr(0, colon) : loopback;
    host = host == "localhost" ? loopback : host;
    const std::string_view port =
        std::string_view(text).substr(colon == std::string::npos ? 0 : colon + 1);
    constexpr unsigned int highestPort = 65535;
    unsigned int number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (!isHost(host) || error != std::errc() || end != port.data() + port.size() ||
        number > highestPort) {
        throw std::runtime_error(
            "'" + text + "' is no address for Prometheus to scrape, such as 127.0.0.1:9464");
    }
    return {std::move(host), number};
}

class PrometheusEndpoint final : public IPrometheusEndpoint {
public:
    explicit PrometheusEndpoint(Address address)
        : m_host(std::move(address.host)), m_exposer(m_host + ":" + std::to_string(address.port)) {
        m_exposer.RegisterCollectable(m_collector);
    }

    const char* name() const override { return "Prometheus"; }
    void start(IAnswers& answers) override { m_answers = &answers; }

    void send(const std::vector<const Record*>& batch) override {
        std::vector<Answer> answers = deliveredAll(batch);
        for (const Record* record : batch) {
            if (record->parcel != nullptr) {
                m_collector->advance(*record->parcel);
            }
        }
        m_answers->answer(std::move(answers));
    }

    void purge() override {}

    void followAccount(std::function<AccountNumbers()> account) override {
        m_collector->followAccount(std::move(account));
    }
    std::string address() const override {
        return m_host + ":" + std::to_string(m_exposer.GetListeningPorts().at(0));
    }

private:
    const std::string m_host;
    const std::shared_ptr<PrometheusCollector> m_collector =
        std::make_shared<PrometheusCollector>();
    prometheus::Exposer m_exposer;
    IAnswers* m_answers = nullptr;
};

} // namespace

std::unique_ptr<IPrometheusEndpoint> openPrometheusEndpoint(const std::string& address) {
    Address parsed = parse(address);
    try {
        return std::make_unique<PrometheusEndpoint>(std::move(parsed));
    } catch (const std::exception& error) {
        throw std::runtime_error("cannot listen at " + address +
                                 " for Prometheus: " + error.what());
    }
}
