#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "host/services/StorageReportFinalizer.h"
#include "host/services/StorageSetGenerator.h"
#include "tests/support/LibraryTest.h"

namespace {

constexpr u64 us = 1'000;
constexpr u64 ms = 1'000'000;

class StorageReportTest : public LibraryTest {
protected:
    static TrackedPtr<AnalyticsParcel> report(IPeriodicAnalyticsParcelFinalizer& finalizer) {
        return {finalizer.finalizeParcel(), TRACKED_DELETE};
    }

    AIO aio;
    Installed<AIO, AIO> installedAio{aio};
    u64 nowNs = 1'000 * ms;
    const StorageLimits limits{9'000, {10, 20, 30, 40}};
    StorageLatency set{[&] { return limits; }, [&] { return nowNs; }};
    StorageSetGenerator generator{"StorageReadsParcel", "reads", set};
};

TEST_F(StorageReportTest, TheFinalizerAddsThePeriodThatTheReportClosed) {
    StorageReportFinalizer finalizer(TRACKED_NEW(StorageAnalyticsGenerator)());
    for (const u64 latencyUs : {3, 2}) { // each report has those of its own period
        aio.countIo(latencyUs * us);
        const auto parcel = report(finalizer);
        EXPECT_EQ(parcel->getEventName(), "StoragePeriodicParcel");
        EXPECT_EQ(parcel->getU32Entries().at("cm1"), 1U);
        EXPECT_EQ(parcel->getU32Entries().at("maxUs"), latencyUs);
    }
}

TEST_F(StorageReportTest, TheFirstPeriodBeginsWithTheFinalizer) {
    struct NoReport : IPeriodicAnalyticsParcelFinalizer {
        AnalyticsParcel* finalizeParcel() override { return nullptr; }
    };
    Singleton<AIO, AIO>::setInstance(nullptr);
    StorageReportFinalizer finalizer(TRACKED_NEW(NoReport)());
    const std::unique_ptr<AIO> created(Singleton<AIO, AIO>::setInstance(&aio));
    EXPECT_NE(created, nullptr);
    EXPECT_EQ(finalizer.finalizeParcel(), nullptr);
}

TEST_F(StorageReportTest, ASetIsReportedLikeTheProcess) {
    // Of the latencies beyond the last bound, two are of slow I/Os, each of an episode.
    for (const auto& [latencyUs, ios] : {std::pair(4, 7), {14, 6}, {24, 5}, {34, 3}}) {
        for (int i = 0; i < ios; ++i) {
            set.countIo(latencyUs * us);
        }
    }
    for (const u64 slowMs : {40, 100}) {
        nowNs += slowMs * ms;
        set.countIo(slowMs * ms);
        nowNs += 50 * ms;
        set.countIo(44 * us);
    }
    set.countFailedIo(1 * us);
    nowNs += 3 * ms;
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
}

TEST_F(StorageReportTest, TheSetsPolicyHasTheIntervalOfTheTunable) {
    for (const u64 seconds : {86'400, 7}) { // the default, and then a set one
        const TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator.createPolicy(),
                                                            TRACKED_DELETE);
        EXPECT_EQ(policy->getNextSchedule(), seconds * 1'000);
        services.tweaks.set("t_StorageAnalyticsIntervalSec", "7");
    }
}

TEST_F(StorageReportTest, AReportThatMemoryFailsIsMadeByTheNextAttempt) {
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    StorageReportFinalizer finalizer(TRACKED_NEW(StorageAnalyticsGenerator)());
    TrackedPtr<AnalyticsParcel> parcel(nullptr, TRACKED_DELETE);
    set.countIo(1);
    for (auto* const each :
         std::initializer_list<IPeriodicAnalyticsParcelFinalizer*>{&finalizer, &generator}) {
        parcel.reset();
        const std::size_t owned = services.memShield.live();
        EXPECT_GT(failEachAllocation([&] { parcel = report(*each); },
                                     [&] { EXPECT_EQ(services.memShield.live(), owned); }),
                  25);
    }
    EXPECT_EQ(parcel->getU32Entries().at("cm1"), 1U); // none is lost with the failed reports
    LogService::setLevel(InfoLevel);
}

} // namespace
