#pragma once

#include "common/Analytics/IPeriodicAnalyticsParcelFinalizer.h"
#include "common/infra/Defs.h"

#include <functional>

// A finalizer around another that knows which report is the last one: before closing that period it
// calls `beforeLast`, so that whatever feeds the report can be brought to an end within it, and
// afterwards `afterLast`. Reports beyond the last are made as usual.
class LastReport : public IPeriodicAnalyticsParcelFinalizer {
public:
    // Owns `finalizer`, which must come from tracked allocation. `reports` is at least 1.
    LastReport(IPeriodicAnalyticsParcelFinalizer* finalizer, u64 reports,
               std::function<void()> beforeLast, std::function<void()> afterLast);
    ~LastReport() override;
    LastReport(const LastReport&) = delete;
    LastReport& operator=(const LastReport&) = delete;

    AnalyticsParcel* finalizeParcel() override;

private:
    IPeriodicAnalyticsParcelFinalizer* const m_finalizer;
    const std::function<void()> m_beforeLast;
    const std::function<void()> m_afterLast;
    u64 m_remaining;
};
