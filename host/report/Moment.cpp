#include "host/report/Moment.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <ctime>

namespace report {

namespace {

constexpr s64 secondMs = OneSecondInMs;
constexpr s64 dayMs = 86'400'000;

tm utcOf(s64 ms) {
    const s64 rest = ((ms % secondMs) + secondMs) % secondMs;
    const auto seconds = static_cast<time_t>((ms - rest) / secondMs);
    tm utc{};
    gmtime_r(&seconds, &utc);
    return utc;
}

// Takes a number of exactly `digits` digits from the front of the text; -1 if there is none.
int takeNumber(std::string_view& text, std::size_t digits) {
    int number = 0;
    if (text.size() < digits) {
        return -1;
    }
    for (const char digit : text.substr(0, digits)) {
        if (digit < '0' || digit > '9') {
            return -1;
        }
        number = number * 10 + (digit - '0');
    }
    text.remove_prefix(digits);
    return number;
}

bool take(std::string_view& text, char character) {
    const bool isThere = !text.empty() && text.front() == character;
    text.remove_prefix(isThere ? 1 : 0);
    return isThere;
}

bool isBetween(int low, int value, int high) {
    return low <= value && value <= high;
}

// Days since the epoch, of the proleptic Gregorian calendar.
s64 daysOf(int year, int month, int day) {
    const s64 y = year - (month <= 2 ? 1 : 0);
    const s64 era = (y >= 0 ? y : y - 399) / 400;
    const s64 yearOfEra = y - era * 400;
    const s64 dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const s64 dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146'097 + dayOfEra - 719'468;
}

bool isLeap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysIn(int year, int month) {
    constexpr std::array<int, 12> days = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : days[static_cast<std::size_t>(month - 1)];
}

std::optional<s64> takeDate(std::string_view& text) {
    const int year = takeNumber(text, 4);
    const int month = take(text, '-') ? takeNumber(text, 2) : -1;
    const int day = take(text, '-') ? takeNumber(text, 2) : -1;
    if (year < 0 || !isBetween(1, month, 12) || !isBetween(1, day, daysIn(year, month))) {
        return std::nullopt;
    }
    return daysOf(year, month, day) * dayMs;
}

// Of any number of digits, as RFC 3339 allows, three count; -1 if there is none.
int takeFraction(std::string_view& text) {
    if (text.empty() || !isBetween('0', text.front(), '9')) {
        return -1;
    }
    int ms = 0;
    int weight = 100;
    while (!text.empty() && isBetween('0', text.front(), '9')) {
        ms += weight * (text.front() - '0');
        weight /= 10;
        text.remove_prefix(1);
    }
    return ms;
}

std::optional<s64> takeTime(std::string_view& text) {
    const int hour = takeNumber(text, 2);
    const int minute = take(text, ':') ? takeNumber(text, 2) : -1;
    const bool hasSecond = take(text, ':');
    const int second = hasSecond ? takeNumber(text, 2) : 0;
    const int fraction = hasSecond && take(text, '.') ? takeFraction(text) : 0;
    if (!isBetween(0, hour, 23) || !isBetween(0, minute, 59) || !isBetween(0, second, 60) ||
        fraction < 0) {
        return std::nullopt;
    }
    return ((hour * 60 + minute) * 60 + second) * secondMs + fraction;
}

std::string shortest(double value) {
    return value < 100 ? fmt::format("{:.3g}", value) : fmt::format("{:.0f}", value);
}

} // namespace

std::string isoText(s64 ms) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", utcOf(ms),
                       ((ms % secondMs) + secondMs) % secondMs);
}

std::string readableText(s64 ms, bool isShort) {
    return isShort ? fmt::format("{:%Y-%m-%d %H:%M}", utcOf(ms))
                   : fmt::format("{:%Y-%m-%d %H:%M:%S}", utcOf(ms));
}

std::optional<s64> parseMoment(std::string_view text) {
    const std::optional<s64> date = takeDate(text);
    if (!date || text.empty()) {
        return date;
    }
    if (!take(text, 'T') && !take(text, ' ')) {
        return std::nullopt;
    }
    const std::optional<s64> time = takeTime(text);
    take(text, 'Z');
    return time && text.empty() ? std::optional(*date + *time) : std::nullopt;
}

std::optional<s64> parseDuration(std::string_view text) {
    s64 number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    constexpr std::array<std::pair<std::string_view, s64>, 4> units = {
        {{"s", secondMs}, {"m", 60 * secondMs}, {"h", 3600 * secondMs}, {"d", dayMs}}};
    constexpr s64 longest = 1'000'000;
    for (const auto& [name, ms] : units) {
        if (error == std::errc() && unit == name && number > 0 && number <= longest) {
            return number * ms;
        }
    }
    return std::nullopt;
}

std::string durationText(double ms) {
    if (ms < 1e3) {
        return shortest(ms) + " ms";
    }
    if (ms < 120e3) {
        return shortest(ms / 1e3) + " s";
    }
    if (ms < 7200e3) {
        return shortest(ms / 60e3) + " min";
    }
    return ms < 2 * static_cast<double>(dayMs) ? shortest(ms / 3600e3) + " h"
                                               : shortest(ms / static_cast<double>(dayMs)) + " d";
}

} // namespace report
