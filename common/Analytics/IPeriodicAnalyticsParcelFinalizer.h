#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"

// Makes the parcel of each reporting period.
class ANALYTICS_VISIBLE IPeriodicAnalyticsParcelFinalizer {
public:
    virtual ~IPeriodicAnalyticsParcelFinalizer() = default;

    // Closes the current period and returns its parcel: never null, from tracked allocation, owned
    // by the caller from then on. A scheduler calls it on the timer's thread, one expiry at a
    // time. An exception passes to the timer service; nothing is sent and no timer is armed then.
    virtual AnalyticsParcel* finalizeParcel() = 0;
};
