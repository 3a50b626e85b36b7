#include "common/Analytics/PeriodicAnalyticsScheduler.h"

#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "tests/support/LibraryTest.h"

namespace {

TEST(Defs, HaveTheNumbersOfTheInterface) {
    EXPECT_EQ(INVALID_IP_ADDRESS, "0.0.0.0");
    const auto numbers = [](auto... each) { return std::vector<int>{each...}; };
    // Every other status, so that no two neighbours can be swapped.
    EXPECT_EQ(numbers(RC_SUCCESS, RC_WAIT, RC_EMPTY, RC_OBJECT_UNDER_DESTRUCTION,
                      RC_OBJECT_ALREADY_EXISTS, RC_OBJECT_NEED_TO_SKIP, RC_NO_RESOURCES,
                      RC_NET_ERROR, RC_SHOULD_RETRY, RC_STOP_EXCLUDE_CURRENT, RC_VOLUME_RESTRICTED,
                      RC_CORRUPTED_OBJECT, RC_IN_QUIESCE, RC_PENDING, RC_WRONG_OBJECT_STATE,
                      RC_DISABLED, RC_LTR_CBT_PERM_DISABLED, RC_ORCHESTRATOR_GENERAL_ERROR,
                      RC_INNER_ERROR, RC_RESTART_REQUIRED, RC_PRE_PROCESSED,
                      RC_LTR_OLDER_THAN_PREV_BACKUP_CP, RC_DNS_NOT_CONFIGURED, RC_BAD_PARAMETERS,
                      RC_YIELD),
              numbers(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30, 32, 34, 36, 38, 40,
                      42, 44, 46, 48));
}

TEST(FixedFrequencySchedulingPolicy, AnswersItsInterval) {
    RecordingLog log;
    for (const auto& [seconds, ms] :
         {std::pair(u64{86'400}, 86'400'000U), {0, 0}, {~u64{0} / 1000 + 1, 384}}) {
        EXPECT_EQ(FixedFrequencySchedulingPolicy(seconds).getNextSchedule(), ms);
    }
    EXPECT_EQ("\n" + toBriefText(log), R"(
kel info getNextSchedule " m_frequencySecs=86400  nextScheduleMs=86400000 \n"
kel assert FixedFrequencySchedulingPolicy " FixedFrequencySchedulingPolicy.cpp N: m_frequencySecs != 0 failed.  m_frequencySecs=0 \n"
kel info getNextSchedule " m_frequencySecs=0  nextScheduleMs=0 \n"
kel info getNextSchedule " m_frequencySecs=18446744073709552  nextScheduleMs=384 \n"
)");
}

// Shows the clock that policies have.
struct ClockPolicy : FixedFrequencySchedulingPolicy {
    using FixedFrequencySchedulingPolicy::FixedFrequencySchedulingPolicy;
    using IAnalyticsSchedulingPolicy::getCurtime;
};

TEST(IAnalyticsSchedulingPolicy, TellsTheTimeInUtcWhateverTheTimeZone) {
    ASSERT_EQ(setenv("TZ", "ABC-13:30", 1), 0);
    tzset();
    tm utc = ClockPolicy(1).getCurtime();
    EXPECT_LT(std::abs(timegm(&utc) - time(nullptr)), 60);
}

// A policy and a finalizer that note in a journal when they are used and released, together with
// how many parcels were pushed by then, what was armed, and how many tracked objects live.
struct SchedulerTest : LibraryTest {
    struct Policy : IAnalyticsSchedulingPolicy {
        ~Policy() override { test->note("~policy"); }
        u64 getNextSchedule() override { return test->note("policy"), test->nextDelay(); }
    };
    struct Finalizer : IPeriodicAnalyticsParcelFinalizer {
        ~Finalizer() override { test->note("~finalizer"); }
        AnalyticsParcel* finalizeParcel() override { return test->note("finalizer"), test->make(); }
    };

    SchedulerTest() { test = this; }
    void note(const std::string& who) {
        journal += who + ": " + std::to_string(services.outbox.pushes().size()) + " pushed,";
        for (const FakeTimer::Expiry& expiry : services.timer.armed()) {
            journal += " " + std::to_string(expiry.delayMs);
        }
        journal += " armed, " + std::to_string(services.memShield.live()) + " live\n";
    }

    inline static SchedulerTest* test = nullptr;
    std::string journal;
    std::function<u64()> nextDelay = [] { return 60'000; };
    std::function<AnalyticsParcel*()> make = [] { return TRACKED_NEW(AnalyticsParcel)(); };
};

// A parcel that was pushed is not touched again, whatever became of the push.
TEST_F(SchedulerTest, FinalizesThenSendsThenArms) {
    auto scheduler = std::make_unique<PeriodicAnalyticsScheduler>(TRACKED_NEW(Policy)(),
                                                                  TRACKED_NEW(Finalizer)());
    nextDelay = [] { return (u64{1} << 32) + 5; }; // the timer gets the low 32 bits
    EXPECT_EQ(services.timer.advance(59'999), 0);
    EXPECT_EQ(services.timer.advance(1), 1);
    nextDelay = [] { return ~0U; };
    services.outbox.refuseNextPush(RC_REACH_LIMIT);
    EXPECT_EQ(services.timer.advance(5), 1);
    services.outbox.throwAtNextPush();
    EXPECT_THROW(scheduler->handleReachedTimeout(), std::runtime_error);
    make = [] { return nullptr; };
    scheduler->handleReachedTimeout();
    scheduler.reset();
    EXPECT_EQ("\n" + journal, R"(
policy: 0 pushed, armed, 2 live
finalizer: 0 pushed, 60000 armed, 2 live
policy: 1 pushed, 60000 armed, 3 live
finalizer: 1 pushed, 60000 5 armed, 3 live
policy: 2 pushed, 60000 5 armed, 4 live
finalizer: 2 pushed, 60000 5 4294967295 armed, 4 live
finalizer: 3 pushed, 60000 5 4294967295 armed, 5 live
policy: 3 pushed, 60000 5 4294967295 armed, 5 live
~policy: 3 pushed, 60000 5 4294967295 4294967295 armed, 5 live
~finalizer: 3 pushed, 60000 5 4294967295 4294967295 armed, 4 live
)");
    for (const int untaken : {1, 2}) {
        TRACKED_DELETE(static_cast<AnalyticsParcel*>(services.outbox.pushes().at(untaken).parcel));
    }
}

TEST_F(SchedulerTest, ReportsWhatIsNull) {
    services.dynamicTweaks.t_disablePeriodicAnalytics = true;
    PeriodicAnalyticsScheduler(TRACKED_NEW(Policy)(), nullptr).handleReachedTimeout();
    PeriodicAnalyticsScheduler(nullptr, TRACKED_NEW(Finalizer)()).handleReachedTimeout();
    PeriodicAnalyticsScheduler::reachedTimeout(0);
    EXPECT_EQ("\n" + journal + toBriefText(log), R"(
policy: 0 pushed, armed, 1 live
policy: 0 pushed, 60000 armed, 1 live
~policy: 0 pushed, 60000 60000 armed, 1 live
finalizer: 0 pushed, 60000 60000 armed, 1 live
~finalizer: 0 pushed, 60000 60000 armed, 1 live
kel assert PeriodicAnalyticsScheduler " PeriodicAnalyticsScheduler.cpp N: m_finalizer failed. \n"
kel assert PeriodicAnalyticsScheduler " PeriodicAnalyticsScheduler.cpp N: m_policy failed. \n"
kel assert reachedTimeout " PeriodicAnalyticsScheduler.cpp N: periodicAnalyticsScheduler failed.  periodicAnalyticsScheduler=0 \n"
)");
}

} // namespace
