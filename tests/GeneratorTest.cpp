#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "host/testing/FakeAio.h"
#include "host/testing/FakeTweaks.h"
#include "tests/support/LibraryTest.h"

namespace {

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

struct GeneratorTest : LibraryTest {
    TrackedPtr<AnalyticsParcel> report() { return {generator.finalizeParcel(), TRACKED_DELETE}; }

    const int fired = services.timer.advanceTo(100); // when the first period begins
    SlowGenerator generator{services.timer};
};

// Periods join: the time that a report takes belongs to the next one.
TEST_F(GeneratorTest, AReportPublishesTheCountersOfItsPeriod) {
    storageCounters() = {50, {120, ~u32{0}, 4, 1, 0}, ~u32{0} - 1, 12};
    std::string lines, parcels; // the lines of the first period
    for (const auto& [ms, threshold] : {std::pair(86'401'999, 100), {999, 50}, {1'000, 49}}) {
        services.timer.advance(ms);
        services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = threshold;
        const auto parcel = report();
        EXPECT_EQ(services.memShield.live(), 1U);
        lines = lines.empty() ? withName(toBriefText(log), parcel.get(), "PARCEL") : lines;
        parcels += toText(*parcel) + "\n";
    }
    EXPECT_EQ("\n" + lines + parcels, R"(
common info StorageAnalyticsGenerator "\n"
common info createPeriodicAnalyticsParcel " periodicAnalyticsParcel=PARCEL PeriodicAnalyticsParcel data:kelTimeStamp=86402099, parcelName=StoragePeriodicParcel , category=storage , accountType=1 , priority=0 , m_startTimeStamp=100 , m_endTimeStamp=86402099 \n"
common info finalizeInternal "StoragePeriodicParcel, Event Label=[Latency Threshold=50][lt=100], Event Value=4294967294, storageLatency[0]=120, storageLatency[1]=4294967295, storageLatency[2]=4, storageLatency[3]=1, storageLatency[4]=0, maxHighStorageLatencyDuration=12\n\n"
StoragePeriodicParcel/storage/[Latency Threshold=50][lt=100]/ account=1 priority=0 value=4294967294 time=86402099 u32:cm1=120 u32:cm2=4294967295 u32:cm3=4 u32:cm4=1 u32:cm5=0 u32:cm6=12 u64:cd11=86401
StoragePeriodicParcel/storage/[Latency Threshold=50][eq=50]/ account=1 priority=0 value=4294967294 time=86404098 u32:cm1=120 u32:cm2=4294967295 u32:cm3=4 u32:cm4=1 u32:cm5=0 u32:cm6=12 u64:cd11=1
StoragePeriodicParcel/storage/[Latency Threshold=50][gt=49]/ account=1 priority=0 value=4294967294 time=86406098 u32:cm1=120 u32:cm2=4294967295 u32:cm3=4 u32:cm4=1 u32:cm5=0 u32:cm6=12 u64:cd11=2
)");
}

TEST_F(GeneratorTest, ThePolicyHasTheIntervalOfTheTunable) {
    for (const u64 seconds : {86'400U, ~0U}) { // the default, and then a set one
        const TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator.createPolicy(),
                                                            TRACKED_DELETE);
        EXPECT_EQ(policy->getNextSchedule(), seconds * 1'000);
        EXPECT_EQ(services.memShield.live(), 1U);
        uintTweaks()["t_StorageAnalyticsIntervalSec"] = ~0U;
    }
}

} // namespace
