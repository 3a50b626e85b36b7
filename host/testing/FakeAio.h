#pragma once

#include "common/infra/AIO.h"

// What every AIO answers when its counters are read. The I/O service is a class without virtual
// operations, so the fake takes its place at link time: a program that links analytics_fake_aio
// gets AIO's constructor, destructor and mabeStorageLatencyAnalytics() from there.
StorageAnalyticsCounters& storageCounters();
