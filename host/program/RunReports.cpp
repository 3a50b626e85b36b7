#include "host/program/RunReports.h"

#include "common/infra/TrackedAllocation.h"

#include <utility>

RunReports::RunReports(IPeriodicAnalyticsParcelFinalizer* finalizer, u64 reports,
                       std::function<void()> beforeLast, std::function<void(bool isLast)> afterEach)
    : m_finalizer(finalizer),
      m_beforeLast(std::move(beforeLast)),
      m_afterEach(std::move(afterEach)),
      m_remaining(reports) {}

RunReports::~RunReports() {
    TRACKED_DELETE(m_finalizer);
}

AnalyticsParcel* RunReports::finalizeParcel() {
    const bool isLast = m_remaining == 1;
    if (isLast) {
        m_beforeLast();
    }
    AnalyticsParcel* parcel = m_finalizer->finalizeParcel();
    m_remaining -= m_remaining > 0 ? 1 : 0;
    m_afterEach(isLast);
    return parcel;
}
