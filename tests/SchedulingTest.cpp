#include "common/Analytics/PeriodicAnalyticsScheduler.h"

#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "tests/support/FakeServices.h"
#include "tests/support/LogText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr u64 u64Max = std::numeric_limits<u64>::max();

TEST(FixedFrequencySchedulingPolicy, AnswersItsIntervalEveryTime) {
    const struct {
        u64 seconds;
        u64 ms;
    } cases[] = {{1, 1'000}, {86'400, 86'400'000}, {0, 0}, {u64Max / 1000 + 1, 384}};
    RecordingLog log;
    for (const auto& [seconds, ms] : cases) {
        FixedFrequencySchedulingPolicy policy(seconds);
        log.clear();
        EXPECT_EQ(policy.getNextSchedule(), ms);
        EXPECT_EQ(policy.getNextSchedule(), ms);
        const std::string line =
            "kel info [virtual u64 FixedFrequencySchedulingPolicy::getNextSchedule()] 3: "
            " m_frequencySecs=" +
            std::to_string(seconds) + "  nextScheduleMs=" + std::to_string(ms) + " \n";
        EXPECT_EQ(toTexts(log), (Texts{line, line}));
    }
}

TEST(FixedFrequencySchedulingPolicy, ReportsAZeroInterval) {
    RecordingLog log;
    FixedFrequencySchedulingPolicy{1};
    EXPECT_EQ(toTexts(log), Texts{});
    FixedFrequencySchedulingPolicy{0};
    EXPECT_EQ(toTexts(log),
              Texts{"kel assert "
                    "[FixedFrequencySchedulingPolicy::FixedFrequencySchedulingPolicy(u64)] 3: "
                    " FixedFrequencySchedulingPolicy.cpp N: m_frequencySecs != 0 failed. "
                    " m_frequencySecs=0 \n"});
}

// Shows the clock that policies have.
struct ClockPolicy : FixedFrequencySchedulingPolicy {
    using FixedFrequencySchedulingPolicy::FixedFrequencySchedulingPolicy;
    using IAnalyticsSchedulingPolicy::getCurtime;
};

TEST(IAnalyticsSchedulingPolicy, TellsTheTimeInUtcWhateverTheTimeZone) {
    ASSERT_EQ(setenv("TZ", "XXX-13:30", 1), 0);
    tzset();
    ClockPolicy policy(1);
    const time_t before = time(nullptr);
    tm utc = policy.getCurtime();
    const time_t after = time(nullptr);
    unsetenv("TZ");
    tzset();
    EXPECT_LE(before, timegm(&utc));
    EXPECT_LE(timegm(&utc), after);
}

// A policy and a finalizer that note in a journal when they are used, together with how far sending
// and arming have come by then.
class SchedulerTest : public testing::Test {
protected:
    struct Policy : IAnalyticsSchedulingPolicy {
        explicit Policy(SchedulerTest& owner) : test(owner) {}
        u64 getNextSchedule() override {
            test.note("policy");
            return test.nextDelayMs;
        }
        SchedulerTest& test;
    };
    struct Finalizer : IPeriodicAnalyticsParcelFinalizer {
        explicit Finalizer(SchedulerTest& owner) : test(owner) {}
        AnalyticsParcel* finalizeParcel() override {
            test.note("finalizer");
            return test.makeParcel();
        }
        SchedulerTest& test;
    };

    FakeServices services;
    RecordingLog log;
    Texts journal;
    u64 nextDelayMs = 60'000;
    std::function<AnalyticsParcel*()> makeParcel = [] { return TRACKED_NEW(AnalyticsParcel)(); };

    void note(const std::string& who) {
        journal.push_back(who + ", " + std::to_string(services.outbox.pushes().size()) +
                          " pushed, " + std::to_string(services.timer.armed().size()) + " armed");
    }
    std::unique_ptr<PeriodicAnalyticsScheduler> makeScheduler() {
        return std::make_unique<PeriodicAnalyticsScheduler>(TRACKED_NEW(Policy)(*this),
                                                            TRACKED_NEW(Finalizer)(*this));
    }
    static ITimer::Cookie cookieOf(PeriodicAnalyticsScheduler& scheduler) {
        return reinterpret_cast<ITimer::Cookie>(&scheduler);
    }
    static std::string assertion(const std::string& function, const std::string& rest) {
        return "kel assert [" + function + "] 3:  PeriodicAnalyticsScheduler.cpp N: " + rest + "\n";
    }

    void TearDown() override {
        services.outbox.freeAndRemoveAllParcels();
        EXPECT_EQ(services.memShield.live(), 0u);
    }
};

TEST_F(SchedulerTest, ArmsOneExpiryAtConstruction) {
    const auto scheduler = makeScheduler();
    EXPECT_EQ(journal, Texts{"policy, 0 pushed, 0 armed"});
    ASSERT_EQ(services.timer.armed().size(), 1u);
    const FakeTimer::Expiry& expiry = services.timer.armed()[0];
    EXPECT_EQ(expiry.callback, &PeriodicAnalyticsScheduler::reachedTimeout);
    EXPECT_EQ(expiry.cookie, cookieOf(*scheduler));
    EXPECT_EQ(expiry.delayMs, 60'000u);
    EXPECT_TRUE(expiry.once);
    EXPECT_EQ(toTexts(log), Texts{});
}

TEST_F(SchedulerTest, FinalizesSendsAndThenArmsAtEachExpiry) {
    const auto scheduler = makeScheduler();
    journal.clear();
    nextDelayMs = 5'000;
    EXPECT_EQ(services.timer.advance(59'999), 0);
    EXPECT_EQ(services.timer.advance(1), 1);
    EXPECT_EQ(services.timer.advance(5'000), 1);
    EXPECT_EQ(journal, (Texts{"finalizer, 0 pushed, 1 armed", "policy, 1 pushed, 1 armed",
                              "finalizer, 1 pushed, 2 armed", "policy, 2 pushed, 2 armed"}));
    EXPECT_EQ(services.timer.pending(), 1u);
    EXPECT_EQ(services.outbox.size(), 2u);
}

TEST_F(SchedulerTest, TheLiveTunableDecidesAtEachExpiry) {
    const auto scheduler = makeScheduler();
    std::size_t sent = 0;
    for (const bool disabled : {true, false, true, true, false}) {
        services.dynamicTweaks.t_disablePeriodicAnalytics = disabled;
        journal.clear();
        services.memShield.calls.clear();
        EXPECT_EQ(services.timer.advance(60'000), 1);
        EXPECT_EQ(journal.size(), 2u); // the period ends in any case
        sent += disabled ? 0 : 1;
        EXPECT_EQ(services.outbox.size(), sent);
        EXPECT_EQ(services.memShield.live(), 2 + sent);
        EXPECT_EQ(withoutLineNumbers(services.memShield.calls.back()),
                  disabled ? "freeAndUnregister AnalyticsParcel PeriodicAnalyticsScheduler.cpp N"
                           : "allocAndRegister " + std::to_string(sizeof(AnalyticsParcel)) +
                                 " 0 AnalyticsParcel SchedulingTest.cpp N");
    }
}

TEST_F(SchedulerTest, TheTimerGetsTheLow32BitsOfThePolicysAnswer) {
    const std::pair<u64, u32> cases[] = {
        {0, 0u},
        {4'294'967'295, 4'294'967'295u},
        {4'294'967'296, 0u},
        {4'294'967'297, 1u},
        {u64Max, 4'294'967'295u},
    };
    for (const auto& [answer, delayMs] : cases) {
        nextDelayMs = answer;
        const auto scheduler = makeScheduler();
        EXPECT_EQ(services.timer.armed().back().delayMs, delayMs) << answer;
    }
}

TEST_F(SchedulerTest, AFailureWhileFinalizingLeavesTheTimerUnarmed) {
    const auto scheduler = makeScheduler();
    makeParcel = []() -> AnalyticsParcel* { throw std::runtime_error("no counters"); };
    EXPECT_THROW(services.timer.advance(60'000), std::runtime_error);
    EXPECT_EQ(services.timer.pending(), 0u);
    EXPECT_EQ(services.memShield.live(), 2u);
}

TEST_F(SchedulerTest, AParcelThatTheOutboxFailedToTakeIsNotTouchedAgain) {
    const auto scheduler = makeScheduler();
    services.outbox.refuseNextPush(RC_REACH_LIMIT);
    EXPECT_EQ(services.timer.advance(60'000), 1); // a refusal changes nothing for the next expiry
    EXPECT_EQ(services.timer.pending(), 1u);
    services.outbox.throwAtNextPush();
    EXPECT_THROW(services.timer.advance(60'000), std::runtime_error);
    EXPECT_EQ(services.timer.pending(), 0u);

    EXPECT_EQ(services.memShield.live(), 4u);
    for (const FakeOutbox::Push& push : services.outbox.pushes()) {
        TRACKED_DELETE(static_cast<AnalyticsParcel*>(push.parcel));
    }
}

TEST_F(SchedulerTest, ReleasesPolicyThenFinalizer) {
    for (const bool active : {true, false}) {
        services.memShield.active = active;
        auto scheduler = makeScheduler();
        services.memShield.calls.clear();
        log.clear();
        scheduler.reset();
        Texts calls;
        for (const std::string& call : services.memShield.calls) {
            calls.push_back(withoutLineNumbers(call));
        }
        const std::string at = " PeriodicAnalyticsScheduler.cpp N";
        EXPECT_EQ(calls,
                  active ? (Texts{"isMemshieldActive", "verifyPtr Policy" + at,
                                  "freeAndUnregister Policy" + at, "isMemshieldActive",
                                  "verifyPtr Finalizer" + at, "freeAndUnregister Finalizer" + at})
                         : (Texts{"isMemshieldActive", "freeAndCount Policy", "isMemshieldActive",
                                  "freeAndCount Finalizer"}));
        EXPECT_EQ(toTexts(log), Texts{});
    }
}

constexpr auto constructor =
    "PeriodicAnalyticsScheduler::PeriodicAnalyticsScheduler(IAnalyticsSchedulingPolicy*, "
    "IPeriodicAnalyticsParcelFinalizer*)";

TEST_F(SchedulerTest, ReportsANullPolicyBeforeANullFinalizerAndArmsNothing) {
    {
        PeriodicAnalyticsScheduler scheduler(nullptr, nullptr);
        scheduler.handleReachedTimeout();
    }
    EXPECT_EQ(toTexts(log), (Texts{assertion(constructor, "m_policy failed. "),
                                   assertion(constructor, "m_finalizer failed. ")}));
    EXPECT_EQ(services.timer.pending(), 0u);
}

TEST_F(SchedulerTest, WithoutAPolicyAnExpirySendsButArmsNothing) {
    PeriodicAnalyticsScheduler scheduler(nullptr, TRACKED_NEW(Finalizer)(*this));
    EXPECT_EQ(toTexts(log), Texts{assertion(constructor, "m_policy failed. ")});
    scheduler.handleReachedTimeout();
    EXPECT_EQ(services.outbox.size(), 1u);
    EXPECT_EQ(services.timer.pending(), 0u);
}

TEST_F(SchedulerTest, WithoutAFinalizerAnExpirySendsNothingAndArmsTheNext) {
    PeriodicAnalyticsScheduler scheduler(TRACKED_NEW(Policy)(*this), nullptr);
    EXPECT_EQ(toTexts(log), Texts{assertion(constructor, "m_finalizer failed. ")});
    EXPECT_EQ(services.timer.advance(120'000), 2);
    EXPECT_EQ(services.outbox.pushes().size(), 0u);
    EXPECT_EQ(services.timer.pending(), 1u);
}

TEST_F(SchedulerTest, WithoutAParcelNothingIsSent) {
    const auto scheduler = makeScheduler();
    makeParcel = [] { return nullptr; };
    EXPECT_EQ(services.timer.advance(60'000), 1);
    EXPECT_EQ(services.outbox.pushes().size(), 0u);
    EXPECT_EQ(services.timer.pending(), 1u);
}

TEST_F(SchedulerTest, ReportsANullCookie) {
    PeriodicAnalyticsScheduler::reachedTimeout(0);
    EXPECT_EQ(toTexts(log), Texts{assertion("static void PeriodicAnalyticsScheduler::reachedTimeout"
                                            "(ITimer::Cookie)",
                                            "periodicAnalyticsScheduler failed. "
                                            " periodicAnalyticsScheduler=0 ")});
    EXPECT_EQ(services.timer.armed().size(), 0u);
}

TEST_F(SchedulerTest, TheCallbackGoesThroughTheVirtualSlot) {
    struct Derived : PeriodicAnalyticsScheduler {
        using PeriodicAnalyticsScheduler::PeriodicAnalyticsScheduler;
        void handleReachedTimeout() override { ++expiries; }
        int expiries = 0;
    } scheduler(TRACKED_NEW(Policy)(*this), TRACKED_NEW(Finalizer)(*this));
    EXPECT_EQ(services.timer.advance(60'000), 1);
    EXPECT_EQ(scheduler.expiries, 1);
}

TEST_F(SchedulerTest, AConstructorThatThrowsLeavesPolicyAndFinalizerToTheCaller) {
    struct Throwing : Policy {
        using Policy::Policy;
        u64 getNextSchedule() override { throw std::runtime_error("no calendar"); }
    };
    const TrackedPtr<Policy> policy(TRACKED_NEW(Throwing)(*this), TRACKED_DELETE);
    const TrackedPtr<Finalizer> finalizer(TRACKED_NEW(Finalizer)(*this), TRACKED_DELETE);
    EXPECT_THROW(PeriodicAnalyticsScheduler(policy.get(), finalizer.get()), std::runtime_error);
    EXPECT_EQ(services.memShield.live(), 2u);
}

} // namespace
