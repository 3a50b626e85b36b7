#include "host/testing/FakeAio.h"

struct AIO::Impl {};

AIO::AIO() = default;
AIO::~AIO() = default;

void AIO::mabeStorageLatencyAnalytics(StorageAnalyticsCounters& counters) {
    counters = storageCounters();
}

StorageAnalyticsCounters& storageCounters() {
    static StorageAnalyticsCounters counters;
    return counters;
}
