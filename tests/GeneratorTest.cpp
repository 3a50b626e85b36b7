#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "host/services/LogService.h"
#include "host/testing/FakeAio.h"
#include "host/testing/FakeServices.h"
#include "host/testing/FakeTweaks.h"
#include "host/testing/LogText.h"
#include "host/testing/ParcelText.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>

namespace {

constexpr u32 top = ~u32{0};

struct GeneratorTest : testing::Test {
    void TearDown() override { EXPECT_EQ(services.memShield.live(), 0U); }

    TrackedPtr<AnalyticsParcel> report() { return {generator.finalizeParcel(), TRACKED_DELETE}; }

    FakeServices services;
    const int fired = services.timer.advanceTo(100); // when the first period begins
    RecordingLog log;
    StorageAnalyticsGenerator generator;
};

TEST_F(GeneratorTest, AReportPublishesTheCounters) {
    storageCounters() = {50, {120, top, 4, 1, 0}, top - 1, 12};
    services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = 100;
    services.timer.advance(86'401'999);
    const auto parcel = report();
    EXPECT_EQ(toText(*parcel), "StoragePeriodicParcel/storage/[Latency Threshold=50][lt=100]/ "
                               "account=1 priority=0 value=4294967294 time=86402099 u32:cm1=120 "
                               "u32:cm2=4294967295 u32:cm3=4 u32:cm4=1 u32:cm5=0 u32:cm6=12 "
                               "u64:cd11=86401");
    std::ostringstream lines;
    lines << "common info [StorageAnalyticsGenerator::StorageAnalyticsGenerator()] 3: \n"
             "common info [AnalyticsParcel*PeriodicAnalyticsGeneratorAbs::"
             "createPeriodicAnalyticsParcel(const std::string&, const std::string&)] 3: "
             " periodicAnalyticsParcel="
          << parcel.get()
          << " PeriodicAnalyticsParcel data:kelTimeStamp=86402099, parcelName="
             "StoragePeriodicParcel , category=storage , accountType=1 , priority=0 , "
             "m_startTimeStamp=100 , m_endTimeStamp=86402099 \n"
             "common info [virtual AnalyticsParcel*StorageAnalyticsGenerator::finalizeInternal()] "
             "3: StoragePeriodicParcel, Event Label=[Latency Threshold=50][lt=100], "
             "Event Value=4294967294, storageLatency[0]=120, storageLatency[1]=4294967295, "
             "storageLatency[2]=4, storageLatency[3]=1, storageLatency[4]=0, "
             "maxHighStorageLatencyDuration=12\n\n";
    EXPECT_EQ(toText(log), lines.str());
}

// Takes a second to make its report.
struct SlowGenerator : StorageAnalyticsGenerator {
    explicit SlowGenerator(FakeTimer& fake) : timer(fake) {}
    AnalyticsParcel* finalizeInternal() override {
        AnalyticsParcel* parcel = StorageAnalyticsGenerator::finalizeInternal();
        timer.advance(1'000);
        return parcel;
    }
    FakeTimer& timer;
};

TEST_F(GeneratorTest, PeriodsJoin) {
    const std::tuple<u32, u64, u64, const char*> rows[] = {
        // threshold, length; length, text
        {8, 1'999, 1, "[Latency Threshold=9][gt=8]"},
        {9, 999, 1, "[Latency Threshold=9][eq=9]"},
        {10, 1'000, 2, "[Latency Threshold=9][lt=10]"}};
    SlowGenerator slow(services.timer);
    storageCounters().latencyThreshold = 9;
    for (const auto& [threshold, ms, seconds, text] : rows) {
        services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = threshold;
        services.timer.advance(ms);
        const TrackedPtr<AnalyticsParcel> parcel(slow.finalizeParcel(), TRACKED_DELETE);
        EXPECT_EQ(parcel->getText(), text);
        EXPECT_EQ(parcel->getU64Entries().at("cd11"), seconds);
    }
}

TEST_F(GeneratorTest, ThePolicyHasTheIntervalOfTheTunable) {
    for (const u64 seconds : {86'400U, top}) { // the default, and then a set one
        const TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator.createPolicy(),
                                                            TRACKED_DELETE);
        EXPECT_EQ(policy->getNextSchedule(), seconds * 1'000);
        EXPECT_EQ(services.memShield.live(), 1U);
        uintTweaks()["t_StorageAnalyticsIntervalSec"] = top;
    }
}

TEST_F(GeneratorTest, AReportThatMemoryFailsKeepsThePeriod) {
    TrackedPtr<AnalyticsParcel> parcel(nullptr, TRACKED_DELETE);
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    const auto tryReport = [&] {
        services.timer.advance(1'000);
        parcel = report();
    };
    const int failures =
        failEachAllocation(tryReport, [&] { EXPECT_EQ(services.memShield.live(), 0U); });
    LogService::setLevel(InfoLevel);
    EXPECT_GT(failures, 10);
    EXPECT_EQ(parcel->getU64Entries().at("cd11"), failures + 1U);
}

} // namespace
