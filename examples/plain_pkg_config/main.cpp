// A service that sends an event and prints what comes out of the outbox.

#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/ParcelFormat.h"
#include "host/services/HostServices.h"

#include <iostream>

int main() {
    auto* parcel = TRACKED_NEW(AnalyticsParcel)();
    parcel->setEventName("CacheWarmed");
    parcel->setCategory("cache");
    parcel->addEntry("hits", u64{970}).addEntry("ratio", 0.97);
    AnalyticsParcelSender::sendAnalyticsParcel(parcel); // the outbox owns it now

    hostOutbox().stopWaiting();
    while (const auto taken = takeParcel()) {
        std::cout << formatParcel(*taken, false);
    }
}
