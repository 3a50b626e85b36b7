#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "host/services/StorageReportFinalizer.h"
#include "host/services/StorageSetGenerator.h"
#include "tests/support/LibraryTest.h"

namespace {

class StorageReportTest : public LibraryTest {
protected:
    static TrackedPtr<AnalyticsParcel> report(IPeriodicAnalyticsParcelFinalizer& finalizer) {
        return {finalizer.finalizeParcel(), TRACKED_DELETE};
    }

    AIO aio;
    Installed<AIO, AIO> installedAio{aio};
    u64 nowNs = 1'000 * nsPerMs;
    const StorageLimits limits{9'000, {10, 20, 30, 40}};
    StorageLatency set{[&] { return limits; }, [&] { return nowNs; }};
    StorageSetGenerator generator{"StorageReadsParcel", "reads", set};
};

// Its first period begins with it, and not with the first I/O.
TEST_F(StorageReportTest, TheFinalizerAddsThePeriodThatTheReportClosed) {
    Singleton<AIO, AIO>::setInstance(nullptr);
    StorageReportFinalizer finalizer(TRACKED_NEW(StorageAnalyticsGenerator)());
    const std::unique_ptr<AIO> created(Singleton<AIO, AIO>::setInstance(&aio));
    EXPECT_NE(created, nullptr);
    for (const std::string us : {"3", "2"}) { // each report has those of its own period
        aio.countIo(std::stoul(us) * nsPerUs);
        const std::string text = toText(*report(finalizer));
        EXPECT_EQ(std::regex_replace(text, std::regex("(Us=" + us + "|periodMs=.*)\\b"), "N"),
                  "StoragePeriodicParcel/storage/[Latency Threshold=50000][eq=50000]/ account=1 "
                  "priority=0 value=0 time=0 u32:boundFastUs=1000 u32:boundModerateUs=5000 "
                  "u32:boundSlowUs=20000 u32:boundVerySlowUs=100000 u32:cm1=1 u32:cm2=0 u32:cm3=0 "
                  "u32:cm4=0 u32:cm5=0 u32:cm6=0 u32:episodes=0 u32:maxN u32:p50N u32:p90N "
                  "u32:p999N u32:p99N u64:cd11=0 u64:episodeSumMs=0 u64:failedIos=0 u64:N");
    }
    struct NoReport : IPeriodicAnalyticsParcelFinalizer {
        AnalyticsParcel* finalizeParcel() override { return nullptr; }
    };
    EXPECT_EQ(StorageReportFinalizer(TRACKED_NEW(NoReport)()).finalizeParcel(), nullptr);
}

TEST_F(StorageReportTest, ASetIsReportedLikeTheProcess) {
    const std::tuple<u64, int, u64> rows[] = {
        // the latency in microseconds, how many I/Os, the milliseconds before each
        {4, 7, 0},       {14, 6, 0},  {24, 5, 0},        {34, 3, 0},
        {40'000, 1, 40}, {44, 1, 50}, {100'000, 1, 100}, {44, 1, 50}}; // two episodes
    for (const auto& [latencyUs, ios, passingMs] : rows) {
        for (int i = 0; i < ios; ++i) {
            nowNs += passingMs * nsPerMs;
            set.countIo(latencyUs * nsPerUs);
        }
    }
    set.countFailedIo(nsPerUs);
    nowNs += 3 * nsPerMs;
    services.timer.advance(3'999);
    services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = 9'001;
    EXPECT_EQ(toText(*report(generator)),
              "StorageReadsParcel/storage/[Latency Threshold=9000][lt=9001]/ account=1 priority=0 "
              "value=120 time=3999 string:set=reads u32:boundFastUs=10 u32:boundModerateUs=20 "
              "u32:boundSlowUs=30 u32:boundVerySlowUs=40 u32:cm1=7 u32:cm2=6 u32:cm3=5 u32:cm4=3 "
              "u32:cm5=4 u32:cm6=150 u32:episodes=2 u32:maxUs=100000 u32:p50Us=15 u32:p90Us=45 "
              "u32:p999Us=98567 u32:p99Us=98567 u64:cd11=3 u64:episodeSumMs=240 u64:failedIos=1 "
              "u64:periodMs=243");
    for (const auto& [live, text] : {std::pair(9'000, "[eq=9000]"), {8'999, "[gt=8999]"}}) {
        services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = live;
        const auto parcel = report(generator);
        EXPECT_EQ(parcel->getText(), std::string("[Latency Threshold=9000]") + text);
        EXPECT_EQ(parcel->getU64Entries().at("failedIos"), 0U) << "of the next period";
    }
    services.tweaks.set("t_StorageAnalyticsIntervalSec", "7");
    const TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator.createPolicy(), TRACKED_DELETE);
    EXPECT_EQ(policy->getNextSchedule(), 7'000U);
}

TEST_F(StorageReportTest, AReportThatMemoryFailsIsMadeByTheNextAttempt) {
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    TrackedPtr<AnalyticsParcel> parcel(nullptr, TRACKED_DELETE);
    set.countIo(1);
    const auto tryReport = [&] {
        services.timer.advance(1'000);
        parcel = report(generator);
    };
    const int failures =
        failEachAllocation(tryReport, [&] { EXPECT_EQ(services.memShield.live(), 0U); });
    EXPECT_GT(failures, 25);
    EXPECT_EQ(parcel->getU32Entries().at("cm1"), 1U); // none is lost with the failed reports
    EXPECT_EQ(parcel->getU64Entries().at("cd11"), failures + 1U);
    LogService::setLevel(InfoLevel);
}

} // namespace
