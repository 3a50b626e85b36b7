#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Defs.h"
#include "common/infra/Export.h"

// Sends parcels to the process-wide outbox.
class ANALYTICS_VISIBLE AnalyticsParcelSender {
public:
    AnalyticsParcelSender() = delete;

    // Logs the hand-over, pushes the parcel under KEL_ANALYTICS and returns the outbox's status.
    // With RC_SUCCESS the parcel belongs to the outbox and must not be touched again; with any
    // other status it stays with the caller, unchanged. A periodic report has no such caller: its
    // scheduler ignores the status, so a report that the outbox refuses is lost, and its memory
    // with it. Any thread.
    static RcStatus sendAnalyticsParcel(AnalyticsParcel* parcel);
};
