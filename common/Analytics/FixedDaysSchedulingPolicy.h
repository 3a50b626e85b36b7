#pragma once

#include "common/Analytics/IAnalyticsSchedulingPolicy.h"
#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <string>
#include <vector>

// A report on chosen weekdays at a chosen hour, in UTC:
//
//     const auto days = FixedDaysSchedulingPolicy::createDaysFromString("mon,wed");
//     auto* policy = TRACKED_NEW(FixedDaysSchedulingPolicy)(days, 5);
//
// The answer is in whole hours, so a report keeps the minutes and seconds at which the policy was
// asked. The target hour itself counts as past:
//
//     asked on      | answer   | falls on
//     --------------+----------+----------------
//     Monday 03:45  |  2 hours | Monday 05:45
//     Monday 05:10  | 48 hours | Wednesday 05:10
//     Monday 10:20  | 43 hours | Wednesday 05:20
//
// Bad input is reported by assertion lines and kept. Immutable, so any thread may ask.
class ANALYTICS_VISIBLE FixedDaysSchedulingPolicy : public IAnalyticsSchedulingPolicy {
public:
    // Numbered like tm_wday.
    enum Days : int {
        SUNDAY,
        MONDAY,
        TUESDAY,
        WEDNESDAY,
        THURSDAY,
        FRIDAY,
        SATURDAY,
        DAYS_IN_WEEK // how many there are, not a day
    };

    // Reports, and keeps, an hour above 23 and values that are no weekday. The days may come in any
    // order and repeat.
    FixedDaysSchedulingPolicy(const std::vector<Days>& days, u64 hour);
    ~FixedDaysSchedulingPolicy() override = default;

    // One hour to seven days, for valid days and a valid hour. Without any day: reports it and
    // answers seven days.
    u64 getNextSchedule() override;

    // "SUNDAY" to "SATURDAY". Any other value is reported and gives an empty text.
    static std::string toString(Days day);

    // The days of a comma-separated list, in its order. A token is a digit, "0" for Sunday to "6",
    // or a text that contains "sun", "mon", "tue", "wed", "thu", "fri" or "sat" (the first of these
    // counts); the host's StringUtils decides on letter case. Spaces are not trimmed. An empty
    // token is skipped silently, any other one is reported and skipped.
    static std::vector<Days> createDaysFromString(const std::string& str);

private:
    std::vector<Days> m_days; // ascending
    u64 m_hour;
};
