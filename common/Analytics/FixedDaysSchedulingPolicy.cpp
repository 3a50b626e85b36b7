#include "common/Analytics/FixedDaysSchedulingPolicy.h"

#include "common/Analytics/LogLine.h"
#include "common/infra/StringUtils.h"

#include <algorithm>
#include <iterator>

namespace {

using Days = FixedDaysSchedulingPolicy::Days;

constexpr u64 MAX_HOUR = 23;

struct DayTexts {
    const char* digit;
    const char* abbreviation;
    const char* name;
};

// Indexed by Days.
constexpr DayTexts dayTexts[] = {
    {"0", "sun", "SUNDAY"},    {"1", "mon", "MONDAY"},   {"2", "tue", "TUESDAY"},
    {"3", "wed", "WEDNESDAY"}, {"4", "thu", "THURSDAY"}, {"5", "fri", "FRIDAY"},
    {"6", "sat", "SATURDAY"},
};
static_assert(std::size(dayTexts) == FixedDaysSchedulingPolicy::DAYS_IN_WEEK);

// The first weekday that the token matches, DAYS_IN_WEEK if there is none.
Days matchDay(const std::string& token) {
    const auto* match =
        std::find_if(std::begin(dayTexts), std::end(dayTexts), [&](const DayTexts& day) {
            return token == day.digit || StringUtils::contains(token, day.abbreviation);
        });
    return static_cast<Days>(match - std::begin(dayTexts));
}

// Days are compared and computed with as unsigned 64-bit numbers, so negative ones come last.
u64 asNumber(Days day) {
    return static_cast<u64>(day);
}

// Whole days from the current one to the first listed day at or after `nextDay`, if need be in the
// following week. The days are ascending, and there is at least one.
u64 daysUntil(const std::vector<Days>& days, u64 nextDay, u64 currentDay) {
    const auto found =
        std::lower_bound(days.begin(), days.end(), nextDay,
                         [](Days day, u64 number) { return asNumber(day) < number; });
    if (found != days.end()) {
        return asNumber(*found) - currentDay;
    }
    return asNumber(days.front()) + FixedDaysSchedulingPolicy::DAYS_IN_WEEK - currentDay;
}

// From the start of the current hour to that of the next target hour on one of the days; a week if
// there is no day.
u64 msUntilNext(const std::vector<Days>& days, u64 hour, u64 currentDay, u64 currentHour) {
    if (days.empty()) {
        return daysToMs(FixedDaysSchedulingPolicy::DAYS_IN_WEEK);
    }
    // The target hour itself counts as past.
    const u64 nextDay = currentHour >= hour ? currentDay + 1 : currentDay;
    const u64 numDays = daysUntil(days, nextDay, currentDay);
    // If the target hour is before the current one, the difference wraps and the sum wraps back.
    return daysToMs(numDays) + hoursToMs(hour - currentHour);
}

std::string listNames(const std::vector<Days>& days) {
    std::string names;
    for (const Days day : days) {
        names += FixedDaysSchedulingPolicy::toString(day) + "; ";
    }
    return names;
}

} // namespace

FixedDaysSchedulingPolicy::FixedDaysSchedulingPolicy(const std::vector<Days>& days, u64 hour)
    : m_days(days), m_hour(hour) {
    EXPECT_OR_REPORT(!days.empty() && hour <= MAX_HOUR) << " days.size()=" << days.size() << " "
                                                        << " hour=" << hour << " ";
    std::string schedule = "Days: ";
    for (const Days day : days) {
        EXPECT_OR_REPORT(day <= SATURDAY) << " day=" << static_cast<int>(day) << " ";
        schedule += toString(day);
    }
    LOG_LINE(LogModuleKel, InfoLevel) << schedule << " m_hour=" << m_hour << " " << std::endl;
    std::sort(m_days.begin(), m_days.end(),
              [](Days left, Days right) { return asNumber(left) < asNumber(right); });
}

u64 FixedDaysSchedulingPolicy::getNextSchedule() {
    const tm now = getCurtime();
    const auto currentHour = static_cast<u64>(now.tm_hour);
    EXPECT_OR_REPORT(currentHour <= MAX_HOUR) << " currentHour=" << currentHour << " ";
    const auto currentDay = static_cast<u64>(now.tm_wday);

    const std::string currentDayName = toString(static_cast<Days>(currentDay));
    const std::string dayNames = listNames(m_days);
    EXPECT_OR_REPORT(!m_days.empty());
    const u64 nextScheduleMs = msUntilNext(m_days, m_hour, currentDay, currentHour);
    LOG_LINE(LogModuleKel, InfoLevel)
        << "currentDay:" << currentDayName << " currentHour=" << currentHour << " "
        << " m_hour=" << m_hour << " "
        << "days:" << dayNames << " nextScheduleMs=" << nextScheduleMs << " " << std::endl;
    EXPECT_OR_REPORT(nextScheduleMs > 0);
    return nextScheduleMs;
}

std::string FixedDaysSchedulingPolicy::toString(Days day) {
    if (day < SUNDAY || day > SATURDAY) {
        EXPECT_OR_REPORT(false) << " day=" << static_cast<int>(day) << " ";
        return {};
    }
    return dayTexts[day].name;
}

std::vector<FixedDaysSchedulingPolicy::Days>
FixedDaysSchedulingPolicy::createDaysFromString(const std::string& str) {
    std::vector<Days> days;
    for (const std::string& token : StringUtils::splitStr(str, ',')) {
        if (token.empty()) {
            continue;
        }
        const Days day = matchDay(token);
        if (day != DAYS_IN_WEEK) {
            days.push_back(day);
        } else {
            EXPECT_OR_REPORT(false) << "bad day '" << token << "' "
                                    << " in string: " << str;
        }
    }
    return days;
}
