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

// Reads "2026-11-22", "2026-11-22T21:49", "2026-11-22T21:49:54" or "2026-11-22T21:49:54.123". The
// "T" may be a space, a "Z" may follow the time, and digits after the third of a fraction are
// ignored. Nothing for any other text.
std::optional<s64> parseMoment(std::string_view text);

// Reads "30s", "5m", "2h" or "1d", a number from 1 to 1000000, into milliseconds. Nothing for any
// other text.
std::optional<s64> parseDuration(std::string_view text);

// "250 ms", "2.5 s", "5 min", "2 h", "3 d"
std::string durationText(double ms);

} // namespace report
