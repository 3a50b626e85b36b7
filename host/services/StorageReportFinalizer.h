#pragma once

#include "common/Analytics/IPeriodicAnalyticsParcelFinalizer.h"
#include "common/infra/Export.h"

// Wraps the finalizer of the process's storage report. Adds the entries of StorageEntries.h for the
// period that AIO closed last; the parcel's own entries stay.
//
//     auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
//     auto* finalizer = TRACKED_NEW(StorageReportFinalizer)(generator);
//     PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), finalizer);
class ANALYTICS_EXPORT StorageReportFinalizer : public IPeriodicAnalyticsParcelFinalizer {
public:
    // Owns `finalizer`, which must come from tracked allocation, once it has returned.
    explicit StorageReportFinalizer(IPeriodicAnalyticsParcelFinalizer* finalizer);
    ~StorageReportFinalizer() override;
    StorageReportFinalizer(const StorageReportFinalizer&) = delete;
    StorageReportFinalizer& operator=(const StorageReportFinalizer&) = delete;

    // If memory runs out while entries are added, the parcel is released and the failure passes on.
    AnalyticsParcel* finalizeParcel() override;

private:
    IPeriodicAnalyticsParcelFinalizer* const m_finalizer;
};
