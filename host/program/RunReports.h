#pragma once

#include "common/Analytics/IPeriodicAnalyticsParcelFinalizer.h"
#include "common/infra/Defs.h"

#include <functional>

// A finalizer around another that tells the program of each report. Before it closes the last
// period it calls `beforeLast`, so that the load can be stopped within that period. After each
// report it calls `afterEach`. Reports beyond the last are made as usual.
class RunReports : public IPeriodicAnalyticsParcelFinalizer {
public:
    // Owns `finalizer`, which must come from tracked allocation. `reports` is the number of the
    // last one; 0: none is the last. The callbacks must not throw.
    RunReports(IPeriodicAnalyticsParcelFinalizer* finalizer, u64 reports,
               std::function<void()> beforeLast, std::function<void(bool isLast)> afterEach);
    ~RunReports() override;
    RunReports(const RunReports&) = delete;
    RunReports& operator=(const RunReports&) = delete;

    AnalyticsParcel* finalizeParcel() override;

private:
    IPeriodicAnalyticsParcelFinalizer* const m_finalizer;
    const std::function<void()> m_beforeLast;
    const std::function<void(bool isLast)> m_afterEach;
    u64 m_remaining;
};
