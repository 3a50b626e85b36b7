#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Lock.h"
#include "common/infra/Singleton.h"

#include <atomic>

// The host's live tunables: public fields that the tunables service keeps up to date and that are
// read at every use. Each field is read and written as a whole, from any thread. Hold
// `together` to read or write several fields that belong together.
class ANALYTICS_EXPORT DynamicTweaks : public Singleton<DynamicTweaks, DynamicTweaks> {
public:
    // Reports are made but not sent.
    std::atomic<bool> t_disablePeriodicAnalytics{false};

    // An I/O that takes at least this long, in microseconds, begins a high-latency episode.
    std::atomic<u32> t_StorageAnalyticsLatencyThreshold{50'000};

    // Upper bounds of the first four latency classes, in microseconds, ascending; what takes longer
    // than the last falls into the fifth class.
    std::atomic<u32> t_StorageAnalyticsLatencyFast{1'000};
    std::atomic<u32> t_StorageAnalyticsLatencyModerate{5'000};
    std::atomic<u32> t_StorageAnalyticsLatencySlow{20'000};
    std::atomic<u32> t_StorageAnalyticsLatencyVerySlow{100'000};

    CheckedMutex together;
};
