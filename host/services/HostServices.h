#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Timer.h"
#include "common/infra/TrackedAllocation.h"

// The process's timer and outbox as the reference host's own classes, for what their interfaces do
// not have. Both functions create the service on its first use, may be called from any thread, and
// throw std::bad_cast where another implementation is installed.
ANALYTICS_EXPORT Timer& hostTimer();         // stop()
ANALYTICS_EXPORT ParcelOutbox& hostOutbox(); // waitForParcel(), stopWaiting(), counts()

// Waits for a parcel and takes it out of hostOutbox(). Null once stopWaiting() was called and
// nothing is held. Any thread.
//
//     while (const auto parcel = takeParcel()) {
//         forward(*parcel);
//     }
ANALYTICS_EXPORT TrackedPtr<AnalyticsParcel> takeParcel();
