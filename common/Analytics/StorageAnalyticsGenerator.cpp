#include "common/Analytics/StorageAnalyticsGenerator.h"

#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "common/Analytics/LogLine.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/Singleton.h"
#include "common/infra/TrackedAllocation.h"
#include "common/infra/Tweaks.h"

#include <cstddef>

namespace {

constexpr unsigned int defaultIntervalSecs = 86400;

// How the counters' threshold compares with the live tunable's.
const char* comparisonKey(u32 countersThreshold, u32 tunableThreshold) {
    if (countersThreshold < tunableThreshold) {
        return "lt";
    }
    return countersThreshold == tunableThreshold ? "eq" : "gt";
}

} // namespace

const std::string StorageAnalyticsGenerator::analyticsCategory = "storage";
const std::string StorageAnalyticsGenerator::parcelName = "StoragePeriodicParcel";
const std::string StorageAnalyticsGenerator::m_latencyThresholdName = "Latency Threshold";
const std::vector<std::string> StorageAnalyticsGenerator::m_storageLatencyNamesCms = {
    "cm1", "cm2", "cm3", "cm4", "cm5"};
const std::string StorageAnalyticsGenerator::m_maxHighStorageLatencyDurationNameCm = "cm6";

StorageAnalyticsGenerator::StorageAnalyticsGenerator() {
    LOG_LINE(LogModuleCommon, InfoLevel) << std::endl;
}

IAnalyticsSchedulingPolicy* StorageAnalyticsGenerator::createPolicy() {
    const u32 intervalSecs = Singleton<Tweaks, Tweaks>::instance()->uintVal(
        "t_StorageAnalyticsIntervalSec", DefaultTweakValue<unsigned int>(defaultIntervalSecs));
    return TRACKED_NEW(FixedFrequencySchedulingPolicy)(intervalSecs);
}

AnalyticsParcel* StorageAnalyticsGenerator::finalizeInternal() {
    const u32 tunableThreshold =
        Singleton<DynamicTweaks, DynamicTweaks>::instance()->t_StorageAnalyticsLatencyThreshold;
    const StorageAnalyticsCounters& counters = m_storageAnalyticsCounters;
    Singleton<AIO, AIO>::instance()->mabeStorageLatencyAnalytics(m_storageAnalyticsCounters);

    TrackedPtr<AnalyticsParcel> parcel(createPeriodicAnalyticsParcel(parcelName, analyticsCategory),
                                       TRACKED_DELETE);
    parcel->addText(m_latencyThresholdName, std::to_string(counters.latencyThreshold));
    parcel->addText(comparisonKey(counters.latencyThreshold, tunableThreshold),
                    std::to_string(tunableThreshold));
    parcel->setValue(counters.avrHighStorageLatencyDuration);
    for (std::size_t i = 0; i < m_storageLatencyNamesCms.size(); ++i) {
        parcel->addEntry(m_storageLatencyNamesCms[i], counters.storageLatency[i]);
    }
    parcel->addEntry(m_maxHighStorageLatencyDurationNameCm, counters.maxHighStorageLatencyDuration);

    auto summary = LOG_LINE(LogModuleCommon, InfoLevel);
    summary << parcelName << ", Event Label=" << parcel->getText()
            << ", Event Value=" << parcel->getValue();
    for (std::size_t i = 0; i < m_storageLatencyNamesCms.size(); ++i) {
        summary << ", storageLatency[" << i << "]=" << counters.storageLatency[i];
    }
    // The text carries a line end of its own, before that of every log line.
    summary << ", maxHighStorageLatencyDuration=" << counters.maxHighStorageLatencyDuration << "\n"
            << std::endl;
    return parcel.release();
}
