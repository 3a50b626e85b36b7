// A test of the service's report, on the library's fakes. Exit code 1 if a report is not what it
// should be.

#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/TrackedAllocation.h"
#include "host/testing/FakeAio.h"
#include "host/testing/FakeServices.h"
#include "host/testing/FakeTweaks.h"
#include "host/testing/ParcelText.h"

#include <iostream>
#include <string>

namespace {

// The reports of three minutes, the second of which is not sent, and what is left of the memory.
std::string reportsOfThreeMinutes() {
    FakeServices services;
    uintTweaks()["t_StorageAnalyticsIntervalSec"] = 60;
    std::string result;
    {
        auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
        const PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), generator);
        for (const u32 minute : {1, 2, 3}) {
            storageCounters() = {50, {minute, 0, 0, 0, 9}, 7, 8};
            services.dynamicTweaks.t_disablePeriodicAnalytics = minute == 2;
            services.timer.advance(60'000);
            if (const auto parcel = services.outbox.take()) {
                result += toText(*parcel) + '\n';
            }
        }
    }
    return result + std::to_string(services.memShield.live()) + " blocks\n";
}

constexpr auto expected =
    "StoragePeriodicParcel/storage/[Latency Threshold=50][lt=100]/ account=1 priority=0 value=7"
    " time=60000 u32:cm1=1 u32:cm2=0 u32:cm3=0 u32:cm4=0 u32:cm5=9 u32:cm6=8 u64:cd11=60\n"
    "StoragePeriodicParcel/storage/[Latency Threshold=50][lt=100]/ account=1 priority=0 value=7"
    " time=180000 u32:cm1=3 u32:cm2=0 u32:cm3=0 u32:cm4=0 u32:cm5=9 u32:cm6=8 u64:cd11=60\n"
    "0 blocks\n";

} // namespace

int main() {
    const std::string reports = reportsOfThreeMinutes();
    if (reports != expected) {
        std::cerr << reports << "expected:\n" << expected;
        return 1;
    }
}
