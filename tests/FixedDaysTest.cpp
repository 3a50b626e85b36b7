#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "host/testing/LogText.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

using Policy = FixedDaysSchedulingPolicy;
using Numbers = std::vector<int>; // of days, from Sunday, 0; others are no days

std::vector<Policy::Days> days(const Numbers& numbers) {
    std::vector<Policy::Days> result;
    for (const int number : numbers) {
        result.push_back(static_cast<Policy::Days>(number));
    }
    return result;
}

// A policy that is asked at moments of the test's choice.
struct AskedPolicy : Policy {
    using Policy::Policy;
    tm getCurtime() override { return now; }
    u64 askOn(int day, int hour) {
        now.tm_wday = day;
        now.tm_hour = hour;
        return getNextSchedule();
    }
    tm now{};
};

// Walks the week hour by hour, from the hour after the current one.
u64 hoursByWalking(const Numbers& chosen, int targetHour, int now) {
    int then = now + 1;
    while (then % 24 != targetHour ||
           std::find(chosen.begin(), chosen.end(), then / 24 % 7) == chosen.end()) {
        ++then;
    }
    return then - now;
}

// Every set of days, in no order and one of them twice, some target hours, every hour of the week.
TEST(FixedDays, AgreesWithAWalkThroughTheWeek) {
    LogService::setLevel(AssertLevel);
    for (unsigned daySet = 1; daySet < 1U << 7 && !HasFailure(); ++daySet) {
        Numbers chosen = {5, 1, 6, 1, 3, 0, 2, 4};
        chosen.erase(std::remove_if(chosen.begin(), chosen.end(),
                                    [&](int day) { return (daySet >> day & 1U) == 0; }),
                     chosen.end());
        for (const int targetHour : {0, 1, 12, 23}) {
            AskedPolicy policy(days(chosen), targetHour);
            for (int now = 0; now < 7 * 24; ++now) {
                EXPECT_EQ(policy.askOn(now / 24, now % 24),
                          hoursByWalking(chosen, targetHour, now) * 3'600'000)
                    << "day set " << daySet << ", hour " << targetHour << ", now " << now;
            }
        }
    }
    LogService::setLevel(InfoLevel);
}

const std::string source = "FixedDaysSchedulingPolicy";

std::string noName(int day) {
    return failedIn(source, "static std::string " + source + "::toString(Days)", "false",
                    " day=" + std::to_string(day) + " ");
}

TEST(FixedDays, ReportsBadInputAtConstruction) {
    const std::string constructor = source + "::" + source + "(const std::vector<Days>&, u64)";
    const auto check = [&](const Numbers& numbers, u64 hour, const std::string& assertions,
                           const std::string& schedule) {
        RecordingLog log;
        Policy policy(days(numbers), hour);
        EXPECT_EQ(toText(log),
                  assertions + "kel info [" + constructor + "] 3: Days: " + schedule + " \n");
    };
    const auto bad = [&](const std::string& details) {
        return failedIn(source, constructor, "!days.empty() && hour <= MAX_HOUR", details);
    };
    const auto tooHigh = [&](int day) {
        const std::string details = " day=" + std::to_string(day) + " ";
        return failedIn(source, constructor, "day <= SATURDAY", details) + noName(day);
    };
    check({5, 1, 1}, 23, "", "FRIDAYMONDAYMONDAY m_hour=23");
    check({}, 0, bad(" days.size()=0  hour=0 "), " m_hour=0");
    check({0, 2, 3, 4, 6}, 24, bad(" days.size()=5  hour=24 "),
          "SUNDAYTUESDAYWEDNESDAYTHURSDAYSATURDAY m_hour=24");
    check({7, INT_MAX, -1, INT_MIN}, 5,
          tooHigh(7) + tooHigh(INT_MAX) + noName(-1) + noName(INT_MIN), " m_hour=5");
}

TEST(FixedDays, LogsEachAnswer) {
    const std::string function = "virtual u64 FixedDaysSchedulingPolicy::getNextSchedule()";
    const auto check = [&](AskedPolicy policy, int day, int hour, const std::string& before,
                           const std::string& answer, const std::string& after) {
        RecordingLog log;
        const u64 delayMs = policy.askOn(day, hour);
        EXPECT_EQ(toText(log),
                  before + "kel info [" + function + "] 3: currentDay:" + answer + " \n" + after);
        EXPECT_EQ(answer.substr(answer.rfind('=') + 1), std::to_string(delayMs));
    };
    check({days({3, 1}), 5}, 1, 10, "",
          "MONDAY currentHour=10  m_hour=5 days:MONDAY; WEDNESDAY;  nextScheduleMs=154800000", "");
    check({days({}), 5}, 1, 10, failedIn(source, function, "!m_days.empty()"),
          "MONDAY currentHour=10  m_hour=5 days: nextScheduleMs=604800000", "");
    check({days({-1, 7, 1}), 5}, 6, 5, noName(7) + noName(-1),
          "SATURDAY currentHour=5  m_hour=5 days:MONDAY; ; ;  nextScheduleMs=86400000", "");
    check({days({1}), 5}, 0, 29,
          failedIn(source, function, "currentHour <= MAX_HOUR", " currentHour=29 "),
          "SUNDAY currentHour=29  m_hour=5 days:MONDAY;  nextScheduleMs=0",
          failedIn(source, function, "nextScheduleMs > 0"));
}

TEST(FixedDays, ParsesDayLists) {
    const std::string list = "6,fri,,1,thursday,monsun, tue,Wed,0, 1,-1,7,10,xyz,sat,2,3,4,5,";
    RecordingLog log;
    EXPECT_EQ(Policy::createDaysFromString(list), days({6, 5, 1, 4, 0, 2, 3, 0, 6, 2, 3, 4, 5}));
    std::string lines;
    for (const char* token : {" 1", "-1", "7", "10", "xyz"}) {
        lines += failedIn(source,
                          "static std::vector<Days> " + source +
                              "::createDaysFromString(const std::string&)",
                          "false", "bad day '" + std::string(token) + "'  in string: " + list);
    }
    EXPECT_EQ(toText(log), lines);
}

} // namespace
