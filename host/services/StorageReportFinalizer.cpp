#include "host/services/StorageReportFinalizer.h"

#include "common/infra/AIO.h"
#include "common/infra/Singleton.h"
#include "common/infra/TrackedAllocation.h"
#include "host/services/StorageEntries.h"

StorageReportFinalizer::StorageReportFinalizer(IPeriodicAnalyticsParcelFinalizer* finalizer)
    : m_finalizer(finalizer) {
    Singleton<AIO, AIO>::instance(); // its first period begins now, not with the first I/O
}

StorageReportFinalizer::~StorageReportFinalizer() {
    TRACKED_DELETE(m_finalizer);
}

AnalyticsParcel* StorageReportFinalizer::finalizeParcel() {
    TrackedPtr<AnalyticsParcel> parcel(m_finalizer->finalizeParcel(), TRACKED_DELETE);
    if (parcel != nullptr) {
        addStorageEntries(*parcel, Singleton<AIO, AIO>::instance()->latency().closedPeriod());
    }
    return parcel.release();
}
