#include "host/program/LastReport.h"

#include "common/infra/TrackedAllocation.h"

#include <utility>

LastReport::LastReport(IPeriodicAnalyticsParcelFinalizer* finalizer, u64 reports,
                       std::function<void()> beforeLast, std::function<void()> afterLast)
    : m_finalizer(finalizer),
      m_beforeLast(std::move(beforeLast)),
      m_afterLast(std::move(afterLast)),
      m_remaining(reports) {}

LastReport::~LastReport() {
    TRACKED_DELETE(m_finalizer);
}

AnalyticsParcel* LastReport::finalizeParcel() {
    const bool isLast = m_remaining == 1;
    if (isLast) {
        m_beforeLast();
    }
    AnalyticsParcel* parcel = m_finalizer->finalizeParcel();
    m_remaining -= m_remaining > 0 ? 1 : 0;
    if (isLast) {
        m_afterLast();
    }
    return parcel;
}
