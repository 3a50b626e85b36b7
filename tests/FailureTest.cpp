#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Timer.h"
#include "common/infra/TrackedAllocation.h"
#include "host/services/MemLedger.h"
#include "host/services/SpdlogSink.h"
#include "host/services/StorageReportFinalizer.h"
#include "host/services/TweaksFile.h"
#include "host/testing/Installed.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace {

// The reference services from a start to a stop, with a report between.
struct Life {
    explicit Life(const std::string& path)
        : log(SpdlogSink::toFile(path + ".log")), file(path, {"t_disablePeriodicAnalytics"}) {
        file.load();
        file.follow();
        timer.init();
        TrackedPtr<IPeriodicAnalyticsParcelFinalizer> finalizer(
            TRACKED_NEW(StorageAnalyticsGenerator)(), TRACKED_DELETE);
        TrackedPtr<IAnalyticsSchedulingPolicy> policy(
            static_cast<StorageAnalyticsGenerator&>(*finalizer).createPolicy(), TRACKED_DELETE);
        auto* report = TRACKED_NEW(StorageReportFinalizer)(finalizer.get());
        static_cast<void>(finalizer.release());
        finalizer.reset(report);
        scheduler = std::make_unique<PeriodicAnalyticsScheduler>(policy.get(), finalizer.get());
        static_cast<void>(policy.release());
        static_cast<void>(finalizer.release());
    }
    u64 stop() {
        timer.stop();
        scheduler->handleReachedTimeout();
        return outbox.size();
    }

    std::unique_ptr<SpdlogSink> log;
    TweaksFile file;
    Timer timer;
    ParcelOutbox outbox{3};
    Installed<ITimer, Timer> installedTimer{timer};
    Installed<IParcelOutbox, ParcelOutbox> installedOutbox{outbox};
    std::unique_ptr<PeriodicAnalyticsScheduler> scheduler;
};

class FailureTest : public testing::Test {
protected:
    void SetUp() override {
        std::ofstream(path) << "t_StorageAnalyticsIntervalSec = 7\n"; // no expiry of its own
        expectNothingLeaked();
    }
    void TearDown() override { std::remove(path.c_str()); }
    void expectNothingLeaked() const { EXPECT_EQ(MemLedger::report().liveBlocks, before); }

    const std::string path = testing::TempDir() + "failure." + std::to_string(getpid());
    const u64 before = MemLedger::report().liveBlocks;
};

TEST_F(FailureTest, AStartAndAStopThatRanOutOfMemoryAreOverWithTheNextTry) {
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    EXPECT_GT(failEachAllocation([&] { EXPECT_EQ(Life(path).stop(), 1U); },
                                 [&] { expectNothingLeaked(); }),
              100);
    expectNothingLeaked();
    LogService::setLevel(InfoLevel);
}

// Expiries on the timer's thread: an allocation of the first one may fail, none of the second's.
struct Expiries {
    static void deliver(ITimer::Cookie cookie) {
        auto& expiries = *reinterpret_cast<Expiries*>(cookie);
        const bool isFirst = std::exchange(expiries.isFirst, false);
        allocationsLeft = isFirst ? expiries.left : unlimitedAllocations;
        bool isDone = true;
        try {
            expiries.life.scheduler->handleReachedTimeout();
        } catch (const std::bad_alloc&) {
            isDone = false;
        }
        const int left = std::exchange(allocationsLeft, unlimitedAllocations);
        if (isFirst) {
            expiries.left = left;
        } else {
            expiries.done.set_value();
        }
        if (!isDone) {
            throw std::bad_alloc(); // to the timer
        }
    }
    void arm() { life.timer.addTimer(deliver, reinterpret_cast<ITimer::Cookie>(this), 0, true); }

    Life& life;
    int left; // allocations before the one that fails
    bool isFirst = true;
    std::promise<void> done;
};

TEST_F(FailureTest, AnExpiryThatRanOutOfMemoryIsFollowedByTheNext) {
    int left = unlimitedAllocations;
    for (int allocations = 0; left == unlimitedAllocations; ++allocations) {
        ASSERT_LT(allocations, 200);
        Life life(path);
        Expiries expiries{life, allocations, true, {}};
        expiries.arm();
        expiries.arm();
        expiries.done.get_future().wait();
        EXPECT_GE(life.stop(), 2U) << allocations;
        left = expiries.left;
    }
    expectNothingLeaked();
}

} // namespace
