// A service that brings its own infrastructure and reports its storage latency once an hour. It
// runs in simulated time: three hours, two reports. Exit code 1 if they are not what it did.

#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "common/infra/Tweaks.h"

#include <iostream>
#include <sstream>
#include <string>

namespace {

constexpr u64 hourMs = 3'600'000;

// The service reaches its own infrastructure in the same way as the library does.
Timer& timer() {
    return static_cast<Timer&>(*Singleton<ITimer, Timer>::instance());
}
AIO& aio() {
    return *Singleton<AIO, AIO>::instance();
}
DynamicTweaks& dynamicTweaks() {
    return *Singleton<DynamicTweaks, DynamicTweaks>::instance();
}

// The consumer: takes the parcels out of the outbox and forwards them, here as text.
std::string forwardParcels() {
    std::ostringstream forwarded;
    auto* outbox = Singleton<IParcelOutbox, ParcelOutbox>::instance();
    while (!outbox->isEmpty()) {
        // Everything under KEL_ANALYTICS is an AnalyticsParcel, and ours from here on.
        const TrackedPtr<AnalyticsParcel> parcel(
            static_cast<AnalyticsParcel*>(outbox->popParcel(IParcelOutbox::KEL_ANALYTICS)),
            TRACKED_DELETE);
        forwarded << parcel->getEventName() << " (" << parcel->getCategory() << ") at "
                  << parcel->getKelTimeStamp() << ": " << parcel->getText();
        for (const auto& [key, value] : parcel->getU32Entries()) {
            forwarded << ' ' << key << '=' << value;
        }
        for (const auto& [key, value] : parcel->getU64Entries()) {
            forwarded << ' ' << key << '=' << value;
        }
        forwarded << '\n';
    }
    return forwarded.str();
}

constexpr auto expected =
    "StoragePeriodicParcel (storage) at 3600000: [Latency Threshold=50][lt=100]"
    " cm1=2 cm2=1 cm3=0 cm4=0 cm5=1 cm6=0 cd11=3600\n"
    "StoragePeriodicParcel (storage) at 10800000: [Latency Threshold=50][eq=50]"
    " cm1=0 cm2=0 cm3=1 cm4=0 cm5=0 cm6=0 cd11=3600\n";

} // namespace

int main() {
    Singleton<Tweaks, Tweaks>::instance()->values["t_StorageAnalyticsIntervalSec"] = 3600;

    // The report: a generator on tracked memory, its policy, and a scheduler that owns both.
    auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
    PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), generator);

    for (const u32 latencyUs : {3, 5, 17, 4000}) {
        aio().completed(latencyUs);
    }
    timer().runUntil(1 * hourMs);

    // Live tunables take effect at the next report: this hour's is not sent.
    dynamicTweaks().t_disablePeriodicAnalytics = true;
    timer().runUntil(2 * hourMs);

    dynamicTweaks().t_disablePeriodicAnalytics = false;
    dynamicTweaks().t_StorageAnalyticsLatencyThreshold = 50;
    aio().completed(29);
    timer().runUntil(3 * hourMs);

    const std::string forwarded = forwardParcels();
    std::cout << forwarded;
    if (forwarded != expected) {
        std::cerr << "expected:\n" << expected;
        return 1;
    }
}
