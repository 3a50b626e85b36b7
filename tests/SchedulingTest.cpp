#include "common/Analytics/PeriodicAnalyticsScheduler.h"

#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "host/testing/FakeServices.h"
#include "host/testing/LogText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>

namespace {

TEST(Defs, HaveTheNumbersOfTheInterface) {
    EXPECT_EQ(INVALID_IP_ADDRESS, "0.0.0.0");
    EXPECT_EQ((std::vector<int>{RC_SUCCESS, RC_ERROR, RC_EMPTY, RC_REACH_LIMIT, RC_NO_RESOURCES,
                                RC_OUT_OF_SPACE, RC_BAD_PARAMETERS, RC_YIELD}),
              (std::vector<int>{0, 1, 4, 11, 12, 35, 46, 48}));
}

TEST(FixedFrequencySchedulingPolicy, AnswersItsInterval) {
    const std::string name = "FixedFrequencySchedulingPolicy";
    const std::pair<u64, u64> cases[] = {{86'400, 86'400'000}, {~u64{0} / 1000 + 1, 384}, {0, 0}};
    for (const auto& [seconds, ms] : cases) {
        RecordingLog log;
        FixedFrequencySchedulingPolicy policy(seconds);
        EXPECT_EQ(policy.getNextSchedule(), ms);
        const std::string zero = failedIn(name, name + "::" + name + "(u64)",
                                          "m_frequencySecs != 0", " m_frequencySecs=0 ");
        EXPECT_EQ(toText(log),
                  (seconds == 0 ? zero : "") + "kel info [virtual u64 " + name +
                      "::getNextSchedule()] 3:  m_frequencySecs=" + std::to_string(seconds) +
                      "  nextScheduleMs=" + std::to_string(ms) + " \n");
    }
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
// how far sending and arming have come by then and how many tracked objects live.
struct SchedulerTest : testing::Test {
    struct Policy : IAnalyticsSchedulingPolicy {
        explicit Policy(SchedulerTest& owner) : test(owner) {}
        ~Policy() override { test.note("~policy"); }
        u64 getNextSchedule() override { return test.note("policy"), test.nextDelay(); }
        SchedulerTest& test;
    };
    struct Finalizer : IPeriodicAnalyticsParcelFinalizer {
        explicit Finalizer(SchedulerTest& owner) : test(owner) {}
        ~Finalizer() override { test.note("~finalizer"); }
        AnalyticsParcel* finalizeParcel() override {
            return test.note("finalizer"), test.makeParcel();
        }
        SchedulerTest& test;
    };

    FakeServices services;
    RecordingLog log;
    std::string journal;
    std::function<u64()> nextDelay = [] { return 60'000; };
    std::function<AnalyticsParcel*()> makeParcel = [] { return TRACKED_NEW(AnalyticsParcel)(); };

    std::string progress() {
        return std::to_string(services.outbox.pushes().size()) + " pushed, " +
               std::to_string(services.timer.armed().size()) + " armed, " +
               std::to_string(services.memShield.live()) + " live";
    }
    void note(const std::string& who) { journal += who + ": " + progress() + "\n"; }
    std::string after(PeriodicAnalyticsScheduler& scheduler) {
        scheduler.handleReachedTimeout();
        return progress();
    }
    Policy* makePolicy() { return TRACKED_NEW(Policy)(*this); }
    Finalizer* makeFinalizer() { return TRACKED_NEW(Finalizer)(*this); }
    void TearDown() override {
        services.outbox.freeAndRemoveAllParcels();
        EXPECT_EQ(services.memShield.live(), 0U);
    }
};

TEST_F(SchedulerTest, FinalizesThenSendsThenArms) {
    auto scheduler = std::make_unique<PeriodicAnalyticsScheduler>(makePolicy(), makeFinalizer());
    const FakeTimer::Expiry expiry = services.timer.armed().at(0);
    EXPECT_EQ(expiry.callback, &PeriodicAnalyticsScheduler::reachedTimeout);
    EXPECT_EQ(expiry.cookie, reinterpret_cast<ITimer::Cookie>(scheduler.get()));
    EXPECT_TRUE(expiry.once);
    nextDelay = [] { return 5'000; };
    EXPECT_EQ(services.timer.advance(59'999), 0);
    EXPECT_EQ(services.timer.advance(1), 1);
    EXPECT_EQ(services.timer.advance(5'000), 1);
    scheduler.reset();
    EXPECT_EQ(journal, "policy: 0 pushed, 0 armed, 2 live\nfinalizer: 0 pushed, 1 armed, 2 live\n"
                       "policy: 1 pushed, 1 armed, 3 live\nfinalizer: 1 pushed, 2 armed, 3 live\n"
                       "policy: 2 pushed, 2 armed, 4 live\n~policy: 2 pushed, 3 armed, 4 live\n"
                       "~finalizer: 2 pushed, 3 armed, 3 live\n");
    EXPECT_TRUE(log.texts(AssertLevel).empty());
}

TEST_F(SchedulerTest, APushedParcelIsNotTouchedAgain) {
    PeriodicAnalyticsScheduler scheduler(makePolicy(), makeFinalizer());
    services.dynamicTweaks.t_disablePeriodicAnalytics = true;
    EXPECT_EQ(after(scheduler), "0 pushed, 2 armed, 2 live");
    services.dynamicTweaks.t_disablePeriodicAnalytics = false;
    services.outbox.refuseNextPush(RC_REACH_LIMIT);
    EXPECT_EQ(after(scheduler), "1 pushed, 3 armed, 3 live");
    services.outbox.throwAtNextPush();
    EXPECT_THROW(scheduler.handleReachedTimeout(), std::runtime_error);
    EXPECT_EQ(progress(), "2 pushed, 3 armed, 4 live");
    for (const FakeOutbox::Push& untaken : services.outbox.pushes()) {
        TRACKED_DELETE(static_cast<AnalyticsParcel*>(untaken.parcel));
    }
    makeParcel = [] { return nullptr; };
    EXPECT_EQ(after(scheduler), "2 pushed, 4 armed, 2 live");
    makeParcel = []() -> AnalyticsParcel* { throw std::runtime_error("no counters"); };
    EXPECT_THROW(scheduler.handleReachedTimeout(), std::runtime_error);
    EXPECT_EQ(progress(), "2 pushed, 4 armed, 2 live");
}

TEST_F(SchedulerTest, TheTimerGetsTheLow32BitsOfThePolicysAnswer) {
    constexpr u64 beyond = u64{1} << 32;
    for (const u64 answer : {u64{0}, beyond - 1, beyond + 1}) {
        nextDelay = [answer] { return answer; };
        PeriodicAnalyticsScheduler scheduler(makePolicy(), makeFinalizer());
        EXPECT_EQ(services.timer.armed().back().delayMs, answer % beyond);
    }
}

TEST_F(SchedulerTest, ReportsWhatIsNull) {
    const std::string name = "PeriodicAnalyticsScheduler";
    const std::string constructor =
        name + "::" + name + "(IAnalyticsSchedulingPolicy*, IPeriodicAnalyticsParcelFinalizer*)";
    PeriodicAnalyticsScheduler(makePolicy(), nullptr).handleReachedTimeout();
    PeriodicAnalyticsScheduler(nullptr, makeFinalizer()).handleReachedTimeout();
    EXPECT_EQ(progress(), "1 pushed, 2 armed, 1 live");
    PeriodicAnalyticsScheduler::reachedTimeout(0);
    EXPECT_EQ(log.texts(AssertLevel).size(), 3U);
    const std::string told = toText(log);
    for (const std::string& line :
         {failedIn(name, constructor, "m_policy"), failedIn(name, constructor, "m_finalizer"),
          failedIn(name, "static void " + name + "::reachedTimeout(ITimer::Cookie)",
                   "periodicAnalyticsScheduler", " periodicAnalyticsScheduler=0 ")}) {
        EXPECT_NE(told.find(line), std::string::npos) << told;
    }
}

TEST_F(SchedulerTest, AConstructorThatThrowsLeavesPolicyAndFinalizerToTheCaller) {
    nextDelay = []() -> u64 { throw std::runtime_error("no calendar"); };
    const TrackedPtr<Policy> policy(makePolicy(), TRACKED_DELETE);
    const TrackedPtr<Finalizer> finalizer(makeFinalizer(), TRACKED_DELETE);
    EXPECT_THROW(PeriodicAnalyticsScheduler(policy.get(), finalizer.get()), std::runtime_error);
    EXPECT_EQ(services.memShield.live(), 2U);
}

} // namespace
