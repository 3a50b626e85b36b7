#pragma once

#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "common/Analytics/PeriodicAnalyticsGeneratorAbs.h"
#include "common/infra/Export.h"
#include "common/infra/TrackedAllocation.h"

#include <atomic>

// How often the service's cache had what was asked for. Any thread counts.
struct CacheCounters {
    std::atomic<u64> hits{0};
    std::atomic<u64> misses{0};
};

// Reports the hits of a cache, from Monday to Friday at 6 o'clock UTC. The counters outlive it.
class ANALYTICS_VISIBLE CacheReport : public PeriodicAnalyticsGeneratorAbs {
public:
    explicit CacheReport(CacheCounters& counters) : m_counters(counters) {}

    IAnalyticsSchedulingPolicy* createPolicy() override {
        const auto days = FixedDaysSchedulingPolicy::createDaysFromString("mon,tue,wed,thu,fri");
        return TRACKED_NEW(FixedDaysSchedulingPolicy)(days, 6);
    }

private:
    AnalyticsParcel* finalizeInternal() override {
        TrackedPtr<AnalyticsParcel> parcel(
            createPeriodicAnalyticsParcel("CachePeriodicParcel", "cache"), TRACKED_DELETE);
        parcel->addEntry("hits", m_counters.hits.exchange(0));
        parcel->addEntry("misses", m_counters.misses.exchange(0));
        return parcel.release();
    }

    CacheCounters& m_counters;
};
