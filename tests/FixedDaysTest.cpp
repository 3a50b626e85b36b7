#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "tests/support/LogText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

namespace {

using Policy = FixedDaysSchedulingPolicy;
using DayList = std::vector<Policy::Days>;

constexpr Policy::Days sunday = Policy::SUNDAY, monday = Policy::MONDAY, tuesday = Policy::TUESDAY,
                       wednesday = Policy::WEDNESDAY, thursday = Policy::THURSDAY,
                       friday = Policy::FRIDAY, saturday = Policy::SATURDAY,
                       daysInWeek = Policy::DAYS_IN_WEEK;
const DayList everyDay = {sunday, monday, tuesday, wednesday, thursday, friday, saturday};

constexpr auto negativeDay = static_cast<Policy::Days>(-1);
constexpr auto lowestDay = static_cast<Policy::Days>(INT_MIN);
constexpr auto highestDay = static_cast<Policy::Days>(INT_MAX);

constexpr int hoursInWeek = 7 * 24;
constexpr u64 hourMs = 3'600'000;

// A policy that is asked at moments of the test's choice.
class AskedPolicy : public Policy {
public:
    using Policy::Policy;

    u64 askOn(int day, int hour) {
        m_now.tm_wday = day;
        m_now.tm_hour = hour;
        return getNextSchedule();
    }

protected:
    tm getCurtime() override { return m_now; }

private:
    tm m_now{};
};

const std::string constructor =
    "FixedDaysSchedulingPolicy::FixedDaysSchedulingPolicy(const std::vector<Days>&, u64)";
const std::string getNextSchedule = "virtual u64 FixedDaysSchedulingPolicy::getNextSchedule()";
const std::string toStringOfDay = "static std::string FixedDaysSchedulingPolicy::toString(Days)";
const std::string createDaysFromString =
    "static std::vector<Days> FixedDaysSchedulingPolicy::createDaysFromString(const std::string&)";

// All lines together. Compilers differ in how they qualify the nested type in a signature.
std::string written(const RecordingLog& log) {
    std::string lines;
    for (const std::string& text : toTexts(log)) {
        lines += std::regex_replace(text, std::regex("\\w+::Days\\b"), "Days");
    }
    return lines;
}

std::string info(const std::string& function, const std::string& text) {
    return "kel info [" + function + "] 3: " + text + "\n";
}

std::string failed(const std::string& function, const std::string& condition,
                   const std::string& details = "") {
    return "kel assert [" + function + "] 3:  FixedDaysSchedulingPolicy.cpp N: " + condition +
           " failed. " + details + "\n";
}

std::string noName(int day) {
    return failed(toStringOfDay, "false", " day=" + std::to_string(day) + " ");
}

TEST(FixedDays, AnswersTheDelayToTheNextTargetHour) {
    struct Case {
        DayList days;
        u64 targetHour;
        Policy::Days day;
        int hour, minute;
        u64 delayMs;
        const char* landsOn;
    };
    const Case cases[] = {
        {{monday, wednesday}, 5, monday, 10, 20, 154'800'000, "WEDNESDAY 5:20"},
        {{monday, wednesday}, 5, monday, 3, 45, 7'200'000, "MONDAY 5:45"},
        {{monday, wednesday}, 5, monday, 5, 10, 172'800'000, "WEDNESDAY 5:10"},
        {{monday}, 5, saturday, 10, 0, 154'800'000, "MONDAY 5:0"},
        {{sunday}, 23, sunday, 23, 30, 604'800'000, "SUNDAY 23:30"},
        {{saturday}, 5, saturday, 4, 0, 3'600'000, "SATURDAY 5:0"},
        {{saturday}, 5, sunday, 4, 0, 522'000'000, "SATURDAY 5:0"},
        {everyDay, 0, tuesday, 13, 0, 39'600'000, "WEDNESDAY 0:0"},
        {{monday}, 24, monday, 10, 0, 50'400'000, "TUESDAY 0:0"},
        {{friday, monday}, 5, tuesday, 5, 0, 259'200'000, "FRIDAY 5:0"},
        {{friday, monday}, 5, saturday, 5, 0, 172'800'000, "MONDAY 5:0"},
        {{negativeDay, monday}, 5, sunday, 5, 0, 86'400'000, "MONDAY 5:0"},
        {{}, 5, tuesday, 9, 15, 604'800'000, "TUESDAY 9:15"},
    };
    for (const Case& each : cases) {
        RecordingLog log;
        AskedPolicy policy(each.days, each.targetHour);
        const u64 delayMs = policy.askOn(each.day, each.hour);

        const u64 landing = each.day * 24U + each.hour + delayMs / hourMs;
        const std::string landsOn = Policy::toString(static_cast<Policy::Days>(landing / 24 % 7)) +
                                    " " + std::to_string(landing % 24) + ":" +
                                    std::to_string(each.minute);
        EXPECT_EQ(delayMs, each.delayMs) << each.landsOn;
        EXPECT_EQ(landsOn, each.landsOn);
    }
}

bool contains(unsigned daySet, int day) {
    return (daySet >> day & 1U) != 0;
}

DayList chosen(unsigned daySet, const DayList& candidates) {
    DayList days;
    std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(days),
                 [&](Policy::Days day) { return contains(daySet, day); });
    return days;
}

// Walks the week hour by hour, from the hour after the current one.
u64 hoursByWalking(unsigned daySet, int targetHour, int now) {
    int then = now + 1;
    while (then % 24 != targetHour || !contains(daySet, then / 24 % 7)) {
        ++then;
    }
    return then - now;
}

class QuietLog {
public:
    QuietLog() { LogService::setLevel(AssertLevel); }
    ~QuietLog() { LogService::setLevel(InfoLevel); }
};

// Every set of days, every target hour, every hour of the week.
TEST(FixedDays, AgreesWithAWalkThroughTheWeek) {
    QuietLog quiet;
    for (unsigned daySet = 1; daySet < 1U << 7; ++daySet) {
        for (int targetHour = 0; targetHour < 24; ++targetHour) {
            AskedPolicy policy(chosen(daySet, everyDay), targetHour);
            for (int now = 0; now < hoursInWeek; ++now) {
                ASSERT_EQ(policy.askOn(now / 24, now % 24),
                          hoursByWalking(daySet, targetHour, now) * hourMs)
                    << "day set " << daySet << ", hour " << targetHour << ", now " << now;
            }
        }
    }
}

TEST(FixedDays, TakesDaysInAnyOrderAndRepeated) {
    QuietLog quiet;
    const DayList shuffledDays = {friday, monday,  saturday, monday,  wednesday,
                                  sunday, tuesday, thursday, thursday};
    for (unsigned daySet = 1; daySet < 1U << 7; ++daySet) {
        AskedPolicy ordered(chosen(daySet, everyDay), 5);
        AskedPolicy shuffled(chosen(daySet, shuffledDays), 5);
        for (int now = 0; now < hoursInWeek; ++now) {
            ASSERT_EQ(shuffled.askOn(now / 24, now % 24), ordered.askOn(now / 24, now % 24))
                << "day set " << daySet << ", now " << now;
        }
    }
}

TEST(FixedDays, ReportsBadInputAtConstructionAndDescribesTheSchedule) {
    const auto badInput = [](const std::string& details) {
        return failed(constructor, "!days.empty() && hour <= MAX_HOUR", details);
    };
    const auto tooHigh = [](int day) {
        return failed(constructor, "day <= SATURDAY", " day=" + std::to_string(day) + " ");
    };
    const auto schedule = [](const std::string& text) { return info(constructor, text); };
    struct Case {
        DayList days;
        u64 hour;
        std::string lines;
    };
    const Case cases[] = {
        {{monday, wednesday}, 5, schedule("Days: MONDAYWEDNESDAY m_hour=5 ")},
        {{friday, monday, monday}, 23, schedule("Days: FRIDAYMONDAYMONDAY m_hour=23 ")},
        {{}, 0, badInput(" days.size()=0  hour=0 ") + schedule("Days:  m_hour=0 ")},
        {everyDay, 24,
         badInput(" days.size()=7  hour=24 ") +
             schedule("Days: SUNDAYMONDAYTUESDAYWEDNESDAYTHURSDAYFRIDAYSATURDAY m_hour=24 ")},
        {{monday, daysInWeek}, 5, tooHigh(7) + noName(7) + schedule("Days: MONDAY m_hour=5 ")},
        {{highestDay}, 5, tooHigh(INT_MAX) + noName(INT_MAX) + schedule("Days:  m_hour=5 ")},
        {{negativeDay, lowestDay}, 5, noName(-1) + noName(INT_MIN) + schedule("Days:  m_hour=5 ")},
    };
    for (const Case& each : cases) {
        RecordingLog log;
        Policy policy(each.days, each.hour);
        EXPECT_EQ(written(log), each.lines);
    }
}

TEST(FixedDays, LogsEachAnswerAndReportsWhatIsWrongWithIt) {
    const auto badHour = [](const std::string& hour) {
        return failed(getNextSchedule, "currentHour <= MAX_HOUR", " currentHour=" + hour + " ");
    };
    const std::string noDays = failed(getNextSchedule, "!m_days.empty()");
    const std::string noDelay = failed(getNextSchedule, "nextScheduleMs > 0");
    const std::string top = "18446744073709551615";
    struct Case {
        DayList days;
        int day, hour; // now
        std::string linesBefore, dayText, daysText;
        u64 delayMs;
        std::string linesAfter;
    };
    const Case cases[] = {
        {{wednesday, monday}, monday, 10, "", "MONDAY", "MONDAY; WEDNESDAY; ", 154'800'000, ""},
        {{}, monday, 10, noDays, "MONDAY", "", 604'800'000, ""},
        {{daysInWeek, monday}, saturday, 5, noName(7), "SATURDAY", "MONDAY; ; ", 86'400'000, ""},
        {{monday}, sunday, 29, badHour("29"), "SUNDAY", "MONDAY; ", 0, noDelay},
        {{monday}, -1, -1, badHour(top) + noName(-1), "", "MONDAY; ", 194'400'000, ""},
    };
    for (const Case& each : cases) {
        RecordingLog log;
        AskedPolicy policy(each.days, 5);
        log.clear();
        EXPECT_EQ(policy.askOn(each.day, each.hour), each.delayMs);
        const std::string answer = "currentDay:" + each.dayText +
                                   " currentHour=" + std::to_string(static_cast<u64>(each.hour)) +
                                   "  m_hour=5 days:" + each.daysText +
                                   " nextScheduleMs=" + std::to_string(each.delayMs) + " ";
        EXPECT_EQ(written(log), each.linesBefore + info(getNextSchedule, answer) + each.linesAfter);
    }
}

TEST(FixedDays, ParsesDayLists) {
    const auto badDay = [](const std::string& details) {
        return failed(createDaysFromString, "false", "bad day " + details);
    };
    struct Case {
        std::string text;
        DayList days;
        std::string lines;
    };
    const Case cases[] = {
        {"mon,wed,fri", {monday, wednesday, friday}, ""},
        {"0,1,2,3,4,5,6", everyDay, ""},
        {"sun,mon,tue,wed,thu,fri,sat", everyDay, ""},
        {"fri,mon", {friday, monday}, ""},
        {"mon,1", {monday, monday}, ""},
        {"thursday", {thursday}, ""},
        {"monsun", {sunday}, ""},
        {",mon,, tue,", {monday, tuesday}, ""},
        {"", {}, ""},
        {"mon,xyz", {monday}, badDay("'xyz'  in string: mon,xyz")},
        {"7", {}, badDay("'7'  in string: 7")},
        {"10", {}, badDay("'10'  in string: 10")},
        {"0, 1,-1,6",
         {sunday, saturday},
         badDay("' 1'  in string: 0, 1,-1,6") + badDay("'-1'  in string: 0, 1,-1,6")},
    };
    for (const Case& each : cases) {
        RecordingLog log;
        EXPECT_EQ(Policy::createDaysFromString(each.text), each.days) << each.text;
        EXPECT_EQ(written(log), each.lines) << each.text;
    }
}

} // namespace
