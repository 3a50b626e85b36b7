#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <fmt/format.h>

#include <string>
#include <string_view>

// Of an ASCII letter; any other character is left as it is, whatever the process's locale.
ANALYTICS_TAG constexpr char lowerCase(char character) {
    const bool isUpper = character >= 'A' && character <= 'Z';
    return isUpper ? static_cast<char>(character - 'A' + 'a') : character;
}

// The text with its control characters as "\x0a", so that none of them ends a log line or controls
// a terminal.
ANALYTICS_TAG std::string escaped(std::string_view text);

// A latency in the unit in which it reads best, to so many digits: "4.986 ms".
ANALYTICS_TAG inline std::string latencyText(u64 microseconds, int digits = 4) {
    const auto us = static_cast<double>(microseconds);
    if (microseconds >= 1'000'000) {
        return fmt::format("{:.{}g} s", us / 1e6, digits);
    }
    return microseconds >= 1'000 ? fmt::format("{:.{}g} ms", us / 1e3, digits)
                                 : fmt::format("{} us", microseconds);
}
