#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

struct StorageAnalyticsCounters {
    u32 latencyThreshold;
    u32 storageLatency[5];
    u32 avrHighStorageLatencyDuration;
    u32 maxHighStorageLatencyDuration;
};

// Counts I/Os that the program says it has made, in five classes of ten microseconds each.
class ANALYTICS_EXPORT AIO {
public:
    void completed(u32 latencyUs);
    void mabeStorageLatencyAnalytics(StorageAnalyticsCounters& counters);

private:
    StorageAnalyticsCounters m_counters = {};
};
