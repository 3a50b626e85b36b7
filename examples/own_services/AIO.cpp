#include "common/infra/AIO.h"

#include <algorithm>

void AIO::completed(u32 latencyUs) {
    ++m_counters.storageLatency[std::min(latencyUs / 10, 4u)];
}

void AIO::mabeStorageLatencyAnalytics(StorageAnalyticsCounters& counters) {
    counters = m_counters;
    counters.latencyThreshold = 50;
    m_counters = {};
}
