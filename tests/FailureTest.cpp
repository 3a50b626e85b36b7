#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "host/services/MemLedger.h"
#include "host/services/SpdlogSink.h"
#include "host/services/StorageReportFinalizer.h"
#include "host/services/TweaksFile.h"
#include "host/testing/Installed.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Files.h"

namespace {

// A start of the reference services, a report and a stop, with each allocation failing in turn.
TEST(FailureTest, AStartAndAStopThatRanOutOfMemoryAreOverWithTheNextTry) {
    const TempFolder folder; // no expiry of its own comes within the interval
    const std::string path = folder.write("file", "t_StorageAnalyticsIntervalSec = 7\n");
    const auto startAndStop = [&path] {
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
        TrackedPtr<StorageReportFinalizer> report(
            TRACKED_NEW(StorageReportFinalizer)(generator.get()), TRACKED_DELETE);
        static_cast<void>(generator.release());
        PeriodicAnalyticsScheduler scheduler(policy.get(), report.get());
        static_cast<void>(policy.release());
        static_cast<void>(report.release());
        timer.stop();
        scheduler.handleReachedTimeout();
        EXPECT_EQ(outbox.size(), 1U);
    };
    const auto expectNothingLeaked = [before = MemLedger::report().liveBlocks] {
        EXPECT_EQ(MemLedger::report().liveBlocks, before);
    };
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    EXPECT_GT(failEachAllocation(startAndStop, expectNothingLeaked), 100);
    LogService::setLevel(InfoLevel);
    expectNothingLeaked();
}

} // namespace
