#pragma once

#include "common/infra/AIO.h"
#include "common/infra/Export.h"

// What every AIO answers when its counters are read. The I/O service is a class without virtual
// operations, so the fake takes its place at link time: a program that calls this gets
// AIO::mabeStorageLatencyAnalytics() from analytics_fakes. All else of AIO is the host's.
ANALYTICS_TAG StorageAnalyticsCounters& storageCounters();
