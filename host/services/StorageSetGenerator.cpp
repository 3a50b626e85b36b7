#include "host/services/StorageSetGenerator.h"

#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/Singleton.h"
#include "common/infra/TrackedAllocation.h"
#include "common/infra/Tweaks.h"
#include "host/services/ReportInterval.h"
#include "host/services/StorageEntries.h"

#include <cstddef>

namespace {

const char* comparisonKey(u32 ofPeriod, u32 live) {
    if (ofPeriod < live) {
        return "lt";
    }
    return ofPeriod == live ? "eq" : "gt";
}

// What the process's own report says of its counters.
void addCounters(AnalyticsParcel& parcel, const StorageAnalyticsCounters& counters,
                 u32 liveThreshold) {
    parcel.addText("Latency Threshold", std::to_string(counters.latencyThreshold));
    parcel.addText(comparisonKey(counters.latencyThreshold, liveThreshold),
                   std::to_string(liveThreshold));
    parcel.setValue(counters.avrHighStorageLatencyDuration);
    for (std::size_t i = 0; i < latencyClassKeys.size(); ++i) {
        parcel.addEntry(latencyClassKeys[i], counters.storageLatency[i]);
    }
    parcel.addEntry("cm6", counters.maxHighStorageLatencyDuration);
}

} // namespace

StorageSetGenerator::StorageSetGenerator(const std::string& eventName, const std::string& setName,
                                         StorageLatency& set)
    : m_eventName(eventName), m_setName(setName), m_set(set) {}

IAnalyticsSchedulingPolicy* StorageSetGenerator::createPolicy() {
    const u32 intervalSecs = Singleton<Tweaks, Tweaks>::instance()->uintVal(
        reportIntervalName, DefaultTweakValue<unsigned int>(defaultReportIntervalSec));
    return TRACKED_NEW(FixedFrequencySchedulingPolicy)(intervalSecs);
}

AnalyticsParcel* StorageSetGenerator::finalizeInternal() {
    const u32 liveThreshold =
        Singleton<DynamicTweaks, DynamicTweaks>::instance()->t_StorageAnalyticsLatencyThreshold;
    // Kept until its report is complete: memory may fail on the way.
    if (!m_unreported) {
        m_unreported = m_set.closePeriod();
    }
    TrackedPtr<AnalyticsParcel> parcel(createPeriodicAnalyticsParcel(m_eventName, "storage"),
                                       TRACKED_DELETE);
    addCounters(*parcel, m_unreported->counters, liveThreshold);
    addStorageEntries(*parcel, *m_unreported);
    parcel->addEntry("set", m_setName);
    m_unreported.reset();
    return parcel.release();
}
