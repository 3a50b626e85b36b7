#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"
#include "host/services/StorageLatency.h"

#include <array>

// The u32 entries of a storage report that count the I/Os of a latency class, fastest first.
constexpr std::array<const char*, 5> latencyClassKeys = {"cm1", "cm2", "cm3", "cm4", "cm5"};

// Adds to a storage report what the library's record has no room for:
//
//     u32 boundFastUs, boundModerateUs,    | upper bounds of the latency classes cm1 to cm4
//         boundSlowUs, boundVerySlowUs     | during the period, in microseconds
//     u32 p50Us, p90Us, p99Us, p999Us,     | percentiles of the latencies and the longest of them,
//         maxUs                            | in microseconds
//     u64 failedIos                        | I/Os that failed; they are in no latency class
//     u64 periodMs                         | length of the period
//     u32 episodes, u64 episodeSumMs       | high-latency episodes and the sum of their durations
ANALYTICS_EXPORT void addStorageEntries(AnalyticsParcel& parcel, const StoragePeriod& period);
