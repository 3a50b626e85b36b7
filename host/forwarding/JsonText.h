#pragma once

#include "common/infra/Export.h"

#include <fmt/format.h>

#include <string>
#include <string_view>

// JSON tokens, appended to a text.

// A string literal with its quotes. Bytes that are no UTF-8 become U+FFFD, one for each longest
// part of a character.
ANALYTICS_TAG void appendJsonString(std::string& out, std::string_view text);

template <typename Integer>
static void appendJsonNumber(std::string& out, Integer value) {
    const fmt::format_int digits(value);
    out.append(digits.data(), digits.size());
}
