// A plugin that uses everything of the library that logs, locks, waits and counts: it sends a
// periodic report and an event. Returns how many parcels came out of the outbox.

#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/AIO.h"
#include "common/infra/Tweaks.h"
#include "host/services/HostServices.h"

extern "C" ANALYTICS_VISIBLE int parcelsThatArrive();
int parcelsThatArrive() {
    Tweaks::instance()->set("t_StorageAnalyticsIntervalSec", "3600");
    Singleton<AIO, AIO>::instance()->countIo(1000);
    auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
    auto* policy = TRACKED_NEW(FixedDaysSchedulingPolicy)(
        FixedDaysSchedulingPolicy::createDaysFromString("mon,tue"), 5);
    PeriodicAnalyticsScheduler scheduler(policy, generator);
    AnalyticsParcelSender::sendAnalyticsParcel(TRACKED_NEW(AnalyticsParcel)());
    hostTimer().stop();
    scheduler.handleReachedTimeout();
    hostOutbox().stopWaiting();
    int parcels = 0;
    while (takeParcel()) {
        ++parcels;
    }
    return parcels;
}
