#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "host/services/LogService.h"
#include "host/services/StorageEntries.h"
#include "host/services/StorageReportFinalizer.h"
#include "host/services/StorageSetGenerator.h"
#include "host/testing/FakeServices.h"
#include "host/testing/ParcelText.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <utility>

namespace {

constexpr u64 us = 1'000;
constexpr u64 ms = 1'000'000;

class StorageReportTest : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(services.memShield.live(), 0U); }

    // Every allocation on the way to a report fails in turn.
    void expectNoLeak(IPeriodicAnalyticsParcelFinalizer& finalizer) {
        const std::size_t owned = services.memShield.live();
        u64 attempts = 0;
        TrackedPtr<AnalyticsParcel> parcel(nullptr, TRACKED_DELETE);
        while (parcel == nullptr) {
            try {
                allocationsLeft = static_cast<int>(attempts++);
                parcel.reset(finalizer.finalizeParcel());
                EXPECT_GE(std::exchange(allocationsLeft, unlimitedAllocations), 0) << attempts;
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(services.memShield.live(), owned) << attempts;
            }
        }
        EXPECT_GT(attempts, 25U) << "each entry takes memory";
    }

    FakeServices services;
    RecordingLog log;
    AIO aio;
    Installed<AIO, AIO> installedAio{aio};
};

TEST_F(StorageReportTest, EachFigureOfAPeriodHasItsKey) {
    StoragePeriod period;
    period.limits = {1, {2, 3, 4, 5}};
    period.failedIos = ~u64{0};
    period.p50Us = 6;
    period.p90Us = 7;
    period.p99Us = 8;
    period.p999Us = 9;
    period.maxUs = ~u32{0};
    period.periodMs = ~u64{0} - 1;
    period.episodes = 10;
    period.episodeSumMs = ~u64{0} - 2;
    AnalyticsParcel parcel;
    addStorageEntries(parcel, period);
    EXPECT_EQ(toText(parcel),
              "/// account=1 priority=0 value=0 time=0 u32:boundFastUs=2 u32:boundModerateUs=3 "
              "u32:boundSlowUs=4 u32:boundVerySlowUs=5 u32:episodes=10 u32:maxUs=4294967295 "
              "u32:p50Us=6 u32:p90Us=7 u32:p999Us=9 u32:p99Us=8 "
              "u64:episodeSumMs=18446744073709551613 u64:failedIos=18446744073709551615 "
              "u64:periodMs=18446744073709551614");
}

TEST_F(StorageReportTest, TheFinalizerAddsThePeriodThatTheReportClosed) {
    auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
    const TrackedPtr<StorageReportFinalizer> finalizer(
        TRACKED_NEW(StorageReportFinalizer)(generator), TRACKED_DELETE);
    for (const u32 failures : {3, 2}) { // each report has those of its own period
        aio.countIo(failures * us);
        for (u32 i = 0; i < failures; ++i) {
            aio.countFailedIo(1 * us);
        }
        services.timer.advance(2'000);
        const TrackedPtr<AnalyticsParcel> parcel(finalizer->finalizeParcel(), TRACKED_DELETE);
        EXPECT_EQ(parcel->getU64Entries().at("failedIos"), failures);
        EXPECT_EQ(parcel->getU32Entries().at("maxUs"), failures);

        AnalyticsParcel expected; // what the library puts in, and then the period
        expected.setEventName("StoragePeriodicParcel");
        expected.setCategory("storage");
        expected.setText("[Latency Threshold=50000][eq=50000]");
        for (const char* empty : {"cm2", "cm3", "cm4", "cm5", "cm6"}) {
            expected.addEntry(empty, u32{0});
        }
        expected.addEntry("cm1", u32{1}).addEntry("cd11", u64{2});
        addStorageEntries(expected, aio.latency().closedPeriod());
        EXPECT_EQ(toText(*parcel), toText(expected));
    }
}

TEST_F(StorageReportTest, ANullParcelStaysNull) {
    struct NoReport : IPeriodicAnalyticsParcelFinalizer {
        AnalyticsParcel* finalizeParcel() override { return nullptr; }
    };
    StorageReportFinalizer finalizer(TRACKED_NEW(NoReport)());
    EXPECT_EQ(finalizer.finalizeParcel(), nullptr);
}

TEST_F(StorageReportTest, ASetIsReportedLikeTheProcessUnderItsOwnName) {
    u64 nowNs = 1'000 * ms;
    StorageLatency set(
        [] {
            return StorageLimits{9'000, {10, 20, 30, 40}};
        },
        [&] { return nowNs; });
    StorageSetGenerator generator("StorageReadsParcel", "reads", set);
    const auto report = [&](u32 liveThreshold) {
        services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = liveThreshold;
        const TrackedPtr<AnalyticsParcel> parcel(generator.finalizeParcel(), TRACKED_DELETE);
        return toText(*parcel);
    };
    // Of the latencies beyond the last bound, two are of slow I/Os, each of an episode.
    u64 latencyUs = 4;
    for (const u32 ios : {7, 6, 5, 3}) {
        for (u32 i = 0; i < ios; ++i) {
            set.countIo(latencyUs * us);
        }
        latencyUs += 10;
    }
    for (const u64 slowMs : {40, 100}) {
        nowNs += slowMs * ms;
        set.countIo(slowMs * ms);
        nowNs += 50 * ms;
        set.countIo(latencyUs * us);
    }
    set.countFailedIo(1 * us);
    services.timer.advance(3'999);
    EXPECT_EQ(report(9'001),
              "StorageReadsParcel/storage/[Latency Threshold=9000][lt=9001]/ account=1 priority=0 "
              "value=120 time=3999 string:set=reads u32:boundFastUs=10 u32:boundModerateUs=20 "
              "u32:boundSlowUs=30 u32:boundVerySlowUs=40 u32:cm1=7 u32:cm2=6 u32:cm3=5 u32:cm4=3 "
              "u32:cm5=4 u32:cm6=150 u32:episodes=2 u32:maxUs=100000 u32:p50Us=15 u32:p90Us=45 "
              "u32:p999Us=98567 u32:p99Us=98567 u64:cd11=3 u64:episodeSumMs=240 u64:failedIos=1 "
              "u64:periodMs=240");
    EXPECT_NE(report(9'000).find("/[Latency Threshold=9000][eq=9000]/"), std::string::npos);
    EXPECT_NE(report(8'999).find("/[Latency Threshold=9000][gt=8999]/"), std::string::npos);
}

TEST_F(StorageReportTest, TheSetsPolicyHasTheIntervalOfTheTunable) {
    StorageLatency set;
    StorageSetGenerator generator("StorageReadsParcel", "reads", set);
    for (const u64 seconds : {86'400U, 7U}) {
        if (seconds != 86'400) { // which is the default
            services.tweaks.set("t_StorageAnalyticsIntervalSec", std::to_string(seconds));
        }
        const TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator.createPolicy(),
                                                            TRACKED_DELETE);
        EXPECT_EQ(policy->getNextSchedule(), seconds * 1'000);
    }
}

TEST_F(StorageReportTest, AReportThatMemoryFailsLeaksNothing) {
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    StorageReportFinalizer finalizer(TRACKED_NEW(StorageAnalyticsGenerator)());
    expectNoLeak(finalizer);
    StorageLatency set;
    StorageSetGenerator generator("StorageReadsParcel", "a name that takes memory of its own", set);
    expectNoLeak(generator);
    LogService::setLevel(InfoLevel);
}

} // namespace
