#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
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

namespace {

// Starts the reference services, does what comes between, and stops them with a last report.
template <typename Between>
void startAndStop(const std::string& path, std::size_t reports, Between between) {
    const auto log = SpdlogSink::toFile(path + ".log");
    TweaksFile file(path, {"t_disablePeriodicAnalytics"});
    file.load();
    file.follow();
    Timer timer;
    timer.init();
    ParcelOutbox outbox(3);
    const Installed<ITimer, Timer> installedTimer(timer);
    const Installed<IParcelOutbox, ParcelOutbox> installedOutbox(outbox);
    TrackedPtr<StorageAnalyticsGenerator> generator(TRACKED_NEW(StorageAnalyticsGenerator)(),
                                                    TRACKED_DELETE);
    TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator->createPolicy(), TRACKED_DELETE);
    TrackedPtr<StorageReportFinalizer> report(TRACKED_NEW(StorageReportFinalizer)(generator.get()),
                                              TRACKED_DELETE);
    static_cast<void>(generator.release());
    PeriodicAnalyticsScheduler scheduler(policy.get(), report.get());
    static_cast<void>(policy.release());
    static_cast<void>(report.release());
    between(timer, scheduler);
    timer.stop();
    scheduler.handleReachedTimeout();
    EXPECT_GE(outbox.size(), reports);
}

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
    EXPECT_GT(failEachAllocation([&] { startAndStop(path, 1, [](auto&, auto&) {}); },
                                 [&] { expectNothingLeaked(); }),
              100);
    LogService::setLevel(InfoLevel);
}

TEST_F(FailureTest, AnExpiryThatRanOutOfMemoryIsFollowedByTheNext) {
    int left = unlimitedAllocations; // by an expiry in which none failed
    for (int allocations = 0; left == unlimitedAllocations; ++allocations) {
        ASSERT_LT(allocations, 200);
        startAndStop(path, 2, [&](ITimer& timer, PeriodicAnalyticsScheduler& scheduler) {
            std::promise<void> done;
            Action failing = [&] {
                allocationsLeft = allocations;
                scheduler.handleReachedTimeout();
                left = std::exchange(allocationsLeft, unlimitedAllocations);
            };
            Action next = [&] { scheduler.handleReachedTimeout(), done.set_value(); };
            arm(timer, failing);
            arm(timer, next);
            done.get_future().wait();
        });
    }
}

} // namespace
