#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "host/services/LogService.h"
#include "host/testing/FakeAio.h"
#include "host/testing/FakeServices.h"
#include "host/testing/FakeTweaks.h"
#include "host/testing/LogText.h"
#include "host/testing/ParcelText.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>

#include <new>
#include <utility>

namespace {

struct GeneratorTest : testing::Test {
    FakeServices services;
    RecordingLog log;
    void TearDown() override { EXPECT_EQ(services.memShield.live(), 0u); }
};

// The two lines that a storage report writes.
std::string linesOf(const AnalyticsParcel& parcel, u64 startMs, u64 endMs) {
    const StorageAnalyticsCounters& from = storageCounters();
    std::ostringstream lines;
    lines << "common info [AnalyticsParcel*PeriodicAnalyticsGeneratorAbs::"
             "createPeriodicAnalyticsParcel(const std::string&, const std::string&)] 3: "
             " periodicAnalyticsParcel="
          << &parcel << " PeriodicAnalyticsParcel data:kelTimeStamp=" << endMs;
    lines << ", parcelName=StoragePeriodicParcel , category=storage , accountType=1 , priority=0 , "
             "m_startTimeStamp="
          << startMs << " , m_endTimeStamp=" << endMs << " \n";
    lines
        << "common info [virtual AnalyticsParcel*StorageAnalyticsGenerator::finalizeInternal()] 3: "
           "StoragePeriodicParcel, Event Label="
        << parcel.getText() << ", Event Value=" << from.avrHighStorageLatencyDuration;
    for (int i = 0; i < 5; ++i) {
        lines << ", storageLatency[" << i << "]=" << from.storageLatency[i];
    }
    lines << ", maxHighStorageLatencyDuration=" << from.maxHighStorageLatencyDuration << "\n\n";
    return lines.str();
}

TEST_F(GeneratorTest, AStorageReportPublishesTheCountersOfItsPeriod) {
    constexpr u32 top = ~u32{0};
    u64 startMs = 100;
    services.timer.advanceTo(startMs);
    StorageAnalyticsGenerator generator;
    EXPECT_EQ(toText(log),
              "common info [StorageAnalyticsGenerator::StorageAnalyticsGenerator()] 3: \n");
    std::vector<TrackedPtr<AnalyticsParcel>> reports;
    std::vector<std::string> expected;
    const auto report = [&](const StorageAnalyticsCounters& counters, u32 tunable, u64 periodMs,
                            const std::string& text) {
        storageCounters() = counters;
        services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = tunable;
        services.timer.advance(periodMs);
        log.clear();
        reports.emplace_back(generator.finalizeParcel(), TRACKED_DELETE);
        EXPECT_EQ(toText(log), linesOf(*reports.back(), startMs, startMs + periodMs));
        startMs += periodMs;
        expected.push_back("StoragePeriodicParcel/storage/[Latency Threshold=" + text);
    };
    report({50, {120, 30, 4, 1, 0}, 7, 12}, 100, 1'999,
           "50][lt=100]/ account=1 priority=0 value=7 time=2099 u32:cm1=120 u32:cm2=30 u32:cm3=4 "
           "u32:cm4=1 u32:cm5=0 u32:cm6=12 u64:cd11=1");
    report({9, {1, 2, 3, 4, 5}, 6, 8}, 9, 999,
           "9][eq=9]/ account=1 priority=0 value=6 time=3098 u32:cm1=1 u32:cm2=2 u32:cm3=3 "
           "u32:cm4=4 u32:cm5=5 u32:cm6=8 u64:cd11=0");
    report({top, {top, 0, 0, 0, top}, top, top}, 0, 86'400'000,
           "4294967295][gt=0]/ account=1 priority=0 value=4294967295 time=86403098 "
           "u32:cm1=4294967295 u32:cm2=0 u32:cm3=0 u32:cm4=0 u32:cm5=4294967295 "
           "u32:cm6=4294967295 u64:cd11=86400");
    for (std::size_t i = 0; i < reports.size(); ++i) { // each as it was made, whatever came later
        EXPECT_EQ(toText(*reports[i]), expected[i]);
    }
}

TEST_F(GeneratorTest, ThePolicyHasTheIntervalOfTheTunable) {
    StorageAnalyticsGenerator generator;
    for (const u64 seconds : {86'400u, 3'600u, ~u32{0}}) {
        if (seconds != 86'400) { // which is the default
            uintTweaks()["t_StorageAnalyticsIntervalSec"] = static_cast<u32>(seconds);
        }
        const TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator.createPolicy(),
                                                            TRACKED_DELETE);
        EXPECT_EQ(policy->getNextSchedule(), seconds * 1'000);
        EXPECT_EQ(services.memShield.live(), 1u);
    }
}

// Every allocation on the way to a report fails in turn.
TEST_F(GeneratorTest, AReportThatMemoryFailsLeaksNothingAndKeepsThePeriod) {
    StorageAnalyticsGenerator generator;
    u64 attempts = 0;
    TrackedPtr<AnalyticsParcel> parcel(nullptr, TRACKED_DELETE);
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    while (parcel == nullptr) {
        services.timer.advance(1'000);
        try {
            allocationsLeft = static_cast<int>(attempts++);
            parcel.reset(generator.finalizeParcel());
            EXPECT_GE(std::exchange(allocationsLeft, unlimitedAllocations), 0)
                << "a failure was swallowed";
        } catch (const std::bad_alloc&) {
            EXPECT_EQ(services.memShield.live(), 0u) << attempts;
        }
    }
    LogService::setLevel(InfoLevel);
    EXPECT_GT(attempts, 10u);
    EXPECT_EQ(parcel->getU64Entries().at("cd11"), attempts);
}

} // namespace
