// Sends a report and an event, and takes both out again.

#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/AIO.h"
#include "host/services/HostServices.h"

int main() {
    auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
    PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), generator);
    Singleton<AIO, AIO>::instance()->countIo(1000);
    auto* event = TRACKED_NEW(AnalyticsParcel)();
    event->addEntry("hits", u64{970}).addEntry("ratio", 0.97);
    AnalyticsParcelSender::sendAnalyticsParcel(event);

    hostTimer().stop();
    scheduler.handleReachedTimeout();
    hostOutbox().stopWaiting();
    const auto first = takeParcel();
    const auto second = takeParcel();
    const bool arrived = first && second && second->getU32Entries().at("cm1") == 1;
    return arrived && !takeParcel() ? 0 : 1;
}
