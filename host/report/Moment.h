#pragma once

#include "common/infra/Defs.h"

#include <optional>
#include <string>
#include <string_view>

namespace report {

// Moments are milliseconds since the Unix epoch, UTC.

// "2026-11-22T21:49:54.123Z"
std::string isoText(s64 ms);

// "2026-11-22 21:49:54"; no seconds where `isShort`.
std::string readableText(s64 ms, bool isShort = false);

// Of "2026-11-22", "2026-11-22T21:49", "2026-11-22T21:49:54" or "2026-11-22T21:49:54.123", a space
// in place of the "T" and a "Z" behind the time allowed. Nothing for any other text.
std::optional<s64> parseMoment(std::string_view text);

// Of "30s", "5m", "2h" or "1d": milliseconds, above 0. Nothing for any other text.
std::optional<s64> parseDuration(std::string_view text);

// "250 ms", "2.5 s", "5 min", "2 h", "3 d"
std::string durationText(double ms);

} // namespace report
