#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "host/testing/LogText.h"
#include "tests/support/Test.h"

namespace {

using Policy = FixedDaysSchedulingPolicy;
using Days = std::vector<Policy::Days>;

// By their numbers, from Sunday, 0; others are no days.
template <typename... Numbers>
Days days(Numbers... numbers) {
    return {static_cast<Policy::Days>(numbers)...};
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

TEST(FixedDays, AnswersTheTimeToTheNextOfItsDays) {
    const RecordingLog quiet;
    AskedPolicy policy(days(3, 1), 5);
    std::string hours;
    for (const auto& [day, hour] :
         {std::pair(0, 23), {1, 0}, {1, 4}, {1, 5}, {2, 6}, {3, 5}, {4, 4}, {6, 5}}) {
        hours += std::to_string(policy.askOn(day, hour) / 3'600'000) + " ";
    }
    EXPECT_EQ(hours, "6 5 1 48 23 120 97 48 ");
    EXPECT_EQ(AskedPolicy(days(2), 0).askOn(2, 0), 7 * 24 * 3'600'000U);
}

// What is bad of a policy's days is reported and kept; of a list of days it is left out.
TEST(FixedDays, ParsesListsAndLogsDaysAndAnswer) {
    RecordingLog log;
    const auto parse = Policy::createDaysFromString;
    AskedPolicy(parse("wednesday,1,,0,Sat,monsun,5,thu, tue,2,6,4,fri,3,"), 23).askOn(6, 23);
    AskedPolicy(parse("7, 1,10"), 0).askOn(1, 10);
    AskedPolicy(days(7, -1, 1), 24).askOn(0, 48);
    EXPECT_EQ("\n" + toBriefText(log), R"(
kel info FixedDaysSchedulingPolicy "Days: WEDNESDAYMONDAYSUNDAYSATURDAYSUNDAYFRIDAYTHURSDAYTUESDAYTUESDAYSATURDAYTHURSDAYFRIDAYWEDNESDAY m_hour=23 \n"
kel info getNextSchedule "currentDay:SATURDAY currentHour=23  m_hour=23 days:SUNDAY; SUNDAY; MONDAY; TUESDAY; TUESDAY; WEDNESDAY; WEDNESDAY; THURSDAY; THURSDAY; FRIDAY; FRIDAY; SATURDAY; SATURDAY;  nextScheduleMs=86400000 \n"
kel assert createDaysFromString " FixedDaysSchedulingPolicy.cpp N: false failed. bad day '7'  in string: 7, 1,10\n"
kel assert createDaysFromString " FixedDaysSchedulingPolicy.cpp N: false failed. bad day ' 1'  in string: 7, 1,10\n"
kel assert createDaysFromString " FixedDaysSchedulingPolicy.cpp N: false failed. bad day '10'  in string: 7, 1,10\n"
kel assert FixedDaysSchedulingPolicy " FixedDaysSchedulingPolicy.cpp N: !days.empty() && hour <= MAX_HOUR failed.  days.size()=0  hour=0 \n"
kel info FixedDaysSchedulingPolicy "Days:  m_hour=0 \n"
kel assert getNextSchedule " FixedDaysSchedulingPolicy.cpp N: !m_days.empty() failed. \n"
kel info getNextSchedule "currentDay:MONDAY currentHour=10  m_hour=0 days: nextScheduleMs=604800000 \n"
kel assert FixedDaysSchedulingPolicy " FixedDaysSchedulingPolicy.cpp N: !days.empty() && hour <= MAX_HOUR failed.  days.size()=3  hour=24 \n"
kel assert FixedDaysSchedulingPolicy " FixedDaysSchedulingPolicy.cpp N: day <= SATURDAY failed.  day=7 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=7 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=-1 \n"
kel info FixedDaysSchedulingPolicy "Days: MONDAY m_hour=24 \n"
kel assert getNextSchedule " FixedDaysSchedulingPolicy.cpp N: currentHour <= MAX_HOUR failed.  currentHour=48 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=7 \n"
kel assert toString " FixedDaysSchedulingPolicy.cpp N: false failed.  day=-1 \n"
kel info getNextSchedule "currentDay:SUNDAY currentHour=48  m_hour=24 days:MONDAY; ; ;  nextScheduleMs=0 \n"
kel assert getNextSchedule " FixedDaysSchedulingPolicy.cpp N: nextScheduleMs > 0 failed. \n"
)");
}

} // namespace
