#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "host/services/MemLedger.h"
#include "host/services/SpdlogSink.h"
#include "host/services/StorageReportFinalizer.h"
#include "host/services/TweaksFile.h"
#include "host/testing/Installed.h"
#include "tests/support/Action.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Files.h"
#include "tests/support/Test.h"

namespace {

// The reference services from a start to a stop, with a report between.
struct Life {
    explicit Life(const std::string& path)
        : log(SpdlogSink::toFile(path + ".log")), file(path, {"t_disablePeriodicAnalytics"}) {
        file.load();
        file.follow();
        timer.init();
        TrackedPtr<StorageAnalyticsGenerator> generator(TRACKED_NEW(StorageAnalyticsGenerator)(),
                                                        TRACKED_DELETE);
        TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator->createPolicy(), TRACKED_DELETE);
        TrackedPtr<StorageReportFinalizer> report(
            TRACKED_NEW(StorageReportFinalizer)(generator.get()), TRACKED_DELETE);
        static_cast<void>(generator.release());
        scheduler.emplace(policy.get(), report.get());
        static_cast<void>(policy.release());
        static_cast<void>(report.release());
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
    std::optional<PeriodicAnalyticsScheduler> scheduler;
};

class FailureTest : public testing::Test {
protected:
    void TearDown() override { expectNothingLeaked(); }
    void expectNothingLeaked() const { EXPECT_EQ(MemLedger::report().liveBlocks, before); }

    const u64 before = MemLedger::report().liveBlocks;
    const TempFolder folder; // no expiry of its own comes within the interval
    const std::string path = folder.write("file", "t_StorageAnalyticsIntervalSec = 7\n");
};

TEST_F(FailureTest, AStartAndAStopThatRanOutOfMemoryAreOverWithTheNextTry) {
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    EXPECT_GT(failEachAllocation([&] { EXPECT_EQ(Life(path).stop(), 1U); },
                                 [&] { expectNothingLeaked(); }),
              100);
    LogService::setLevel(InfoLevel);
}

TEST_F(FailureTest, AnExpiryThatRanOutOfMemoryIsFollowedByTheNext) {
    int left = unlimitedAllocations; // by an expiry in which none failed
    for (int allocations = 0; left == unlimitedAllocations; ++allocations) {
        ASSERT_LT(allocations, 200);
        Life life(path);
        std::promise<void> done;
        Action failing = [&] {
            allocationsLeft = allocations;
            life.scheduler->handleReachedTimeout();
            left = std::exchange(allocationsLeft, unlimitedAllocations);
        };
        Action next = [&] { life.scheduler->handleReachedTimeout(), done.set_value(); };
        arm(life.timer, failing);
        arm(life.timer, next);
        done.get_future().wait();
        EXPECT_GE(life.stop(), 2U) << allocations;
    }
}

} // namespace
