// Sends a report and an event, and takes both out again.

#include "common/Analytics/AnalyticsMetrics.h"
#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/AIO.h"
#include "common/infra/Mutex.h"
#include "host/services/HostServices.h"

#include <type_traits>

static_assert(!std::is_default_constructible_v<TrackedDelete>);

// What users write: implicit constructions, and literals that tracked allocation passes on.
static IAnalyticsSchedulingPolicy* makePolicy() {
    Mutex mutex;
    Guard guard = {mutex};
    AnalyticsMaximumMetric metric = {"x"};
    FixedFrequencySchedulingPolicy frequency = {5};
    static_cast<void>(u64{metric} + frequency.getNextSchedule());
    const auto days = FixedDaysSchedulingPolicy::createDaysFromString("mon,wed");
    return TRACKED_NEW(FixedDaysSchedulingPolicy)(days, 5);
}

int main() {
    auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
    PeriodicAnalyticsScheduler scheduler(makePolicy(), generator);
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
