// A service that reports its cache. It is stopped long before the report is due, so what it prints
// is the last, partial period.

#include "CacheReport.h"

#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "host/forwarding/ParcelFormat.h"
#include "host/services/HostServices.h"

#include <iostream>

int main() {
    CacheCounters counters;
    auto* generator = TRACKED_NEW(CacheReport)(counters);
    PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), generator);

    counters.hits += 970;
    counters.misses += 30;

    hostTimer().stop();
    scheduler.handleReachedTimeout();
    hostOutbox().stopWaiting();
    while (const auto parcel = takeParcel()) {
        std::cout << formatParcel(*parcel, false);
    }
}
