#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "host/testing/LogText.h"
#include "tests/support/Test.h"

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
    const RecordingLog quiet;
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
}

// What is logged by a policy that is asked once.
std::string logOf(const Numbers& numbers, u64 hour, int askedOn, int askedAt) {
    RecordingLog log;
    AskedPolicy(days(numbers), hour).askOn(askedOn, askedAt);
    return "\n" + toBriefText(log);
}

TEST(FixedDays, LogsDaysAndAnswer) {
    EXPECT_EQ(logOf({3, 1, 0, 6, 2, 5, 4, 1}, 23, 6, 23), R"(
kel info FixedDaysSchedulingPolicy "Days: WEDNESDAYMONDAYSUNDAYSATURDAYTUESDAYFRIDAYTHURSDAYMONDAY m_hour=23 \n"
kel info getNextSchedule "currentDay:SATURDAY currentHour=23  m_hour=23 days:SUNDAY; MONDAY; MONDAY; TUESDAY; WEDNESDAY; THURSDAY; FRIDAY; SATURDAY;  nextScheduleMs=86400000 \n"
)");
}

TEST(FixedDays, ReportsAndKeepsWhatIsBad) {
    EXPECT_EQ(logOf({}, 0, 1, 10), R"(
kel assert FixedDaysSchedulingPolicy " FixedDaysSchedulingPolicy.cpp N: !days.empty() && hour <= MAX_HOUR failed.  days.size()=0  hour=0 \n"
kel info FixedDaysSchedulingPolicy "Days:  m_hour=0 \n"
kel assert getNextSchedule " FixedDaysSchedulingPolicy.cpp N: !m_days.empty() failed. \n"
kel info getNextSchedule "currentDay:MONDAY currentHour=10  m_hour=0 days: nextScheduleMs=604800000 \n"
)");
    EXPECT_EQ(logOf({7, -1, INT_MIN, 1}, 24, 6, 5), R"(
kel assert FixedDaysSchedulingPolicy " FixedDaysSchedulingPolicy.cpp N: !days.empty() && hour <= MAX_HOUR failed.  days.size()=4  hour=24 \n"
kel assert FixedDaysSchedulingPolicy " FixedDaysSchedulingPolicy.cpp N: day <= SATURDAY failed.  day=7 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=7 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=-1 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=-2147483648 \n"
kel info FixedDaysSchedulingPolicy "Days: MONDAY m_hour=24 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=7 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=-2147483648 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=-1 \n"
kel info getNextSchedule "currentDay:SATURDAY currentHour=5  m_hour=24 days:MONDAY; ; ; ;  nextScheduleMs=154800000 \n"
)");
    EXPECT_EQ(logOf({1}, 5, 0, 29), R"(
kel info FixedDaysSchedulingPolicy "Days: MONDAY m_hour=5 \n"
kel assert getNextSchedule " FixedDaysSchedulingPolicy.cpp N: currentHour <= MAX_HOUR failed.  currentHour=29 \n"
kel info getNextSchedule "currentDay:SUNDAY currentHour=29  m_hour=5 days:MONDAY;  nextScheduleMs=0 \n"
kel assert getNextSchedule " FixedDaysSchedulingPolicy.cpp N: nextScheduleMs > 0 failed. \n"
)");
}

TEST(FixedDays, ParsesDayLists) {
    RecordingLog log;
    EXPECT_EQ(Policy::createDaysFromString("6,fri,,1,thursday,monsun, tue,Wed,0,2,3,4,5,sat,"),
              days({6, 5, 1, 4, 0, 2, 3, 0, 2, 3, 4, 5, 6}));
    EXPECT_EQ(Policy::createDaysFromString("7, 1,10,xyz"), days({}));
    EXPECT_EQ("\n" + toBriefText(log), R"(
kel assert createDaysFromString " FixedDaysSchedulingPolicy.cpp N: false failed. bad day '7'  in string: 7, 1,10,xyz\n"
kel assert createDaysFromString " FixedDaysSchedulingPolicy.cpp N: false failed. bad day ' 1'  in string: 7, 1,10,xyz\n"
kel assert createDaysFromString " FixedDaysSchedulingPolicy.cpp N: false failed. bad day '10'  in string: 7, 1,10,xyz\n"
kel assert createDaysFromString " FixedDaysSchedulingPolicy.cpp N: false failed. bad day 'xyz'  in string: 7, 1,10,xyz\n"
)");
}

} // namespace
