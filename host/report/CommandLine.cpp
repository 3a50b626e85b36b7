#include "host/report/CommandLine.h"

#include "host/report/ExitCodes.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <numeric>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace report {

namespace {

// Breaks a text into lines that leave room for the names of the options.
std::string wrapped(const std::string& text, std::size_t width) {
    std::istringstream words(text);
    std::string lines;
    std::size_t column = 0;
    for (std::string word; words >> word; column += word.size()) {
        const bool fits = column + 1 + word.size() <= width;
        lines += column == 0 ? "" : fits ? " " : "\n";
        column = column != 0 && fits ? column + 1 : 0;
        lines += word;
    }
    return lines;
}

void fitInto80Columns(CLI::App& app) {
    constexpr std::size_t nameWidth = 28;
    app.get_formatter()->column_width(nameWidth);
    for (CLI::Option* option : app.get_options()) {
        option->description(wrapped(option->get_description(), 80 - nameWidth));
    }
}

// How many letters have to be changed, added or left out.
std::size_t distance(const std::string& from, const std::string& to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

// One line that says what is wrong. For an unknown option it suggests the nearest known one.
std::string messageOf(const CLI::ParseError& error, const CLI::App& app) {
    const std::vector<std::string> unknown = app.remaining();
    if (dynamic_cast<const CLI::ExtrasError*>(&error) == nullptr || unknown.empty()) {
        std::string message = error.what();
        std::replace(message.begin(), message.end(), '\n', ' ');
        return message.erase(message.find_last_not_of(' ') + 1);
    }
    const std::string given = unknown[0].substr(0, unknown[0].find('='));
    std::string nearest;
    for (const CLI::Option* option : app.get_options()) {
        const std::string name = option->get_name();
        nearest = distance(given, name) < distance(given, nearest) ? name : nearest;
    }
    const bool isNear = !nearest.empty() && distance(given, nearest) <= 2;
    return "'" + unknown[0] + "' is not an option" +
           (isNear ? ", did you mean '" + nearest + "'?" : "");
}

} // namespace

std::optional<int> parse(CLI::App& app, int argc, const char* const* argv,
                         const std::function<void()>& checkTogether) {
    fitInto80Columns(app);
    try {
        app.parse(argc, argv);
        checkTogether();
        return std::nullopt;
    } catch (const CLI::Success& asked) { // --help, --version
        app.exit(asked);
        if (std::cout.flush()) {
            return exitDone;
        }
        std::cerr << app.get_name() << ": cannot write to standard output" << std::endl;
        return exitFailed;
    } catch (const CLI::ParseError& error) {
        std::cerr << app.get_name() << ": " << messageOf(error, app) << " (see --help)"
                  << std::endl;
        return exitUsage;
    }
}

} // namespace report
