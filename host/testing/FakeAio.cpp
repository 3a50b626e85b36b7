#include "host/testing/FakeAio.h"

void AIO::mabeStorageLatencyAnalytics(StorageAnalyticsCounters& counters) {
    counters = storageCounters();
}

StorageAnalyticsCounters& storageCounters() {
    static StorageAnalyticsCounters counters;
    return counters;
}
