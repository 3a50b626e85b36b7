#pragma once

#include "common/Analytics/PeriodicAnalyticsGeneratorAbs.h"
#include "common/infra/AIO.h"
#include "common/infra/Export.h"

#include <string>
#include <vector>

// The periodic storage-latency report: the counters that the host's asynchronous I/O service keeps,
// published unchanged. Its parcel, "StoragePeriodicParcel" in category "storage":
//
//     text        | [Latency Threshold=L][lt=T]: the counters' threshold L is less than (lt),
//                 | equal to (eq) or greater than (gt) the live tunable's threshold T
//     value       | mean duration of the high-latency episodes
//     cm1 to cm5  | u32: completed I/Os in each latency class
//     cm6         | u32: duration of the longest high-latency episode
//     cd11        | u64: length of the period in seconds
//
// The host makes it on tracked memory; the scheduler that drives it owns it.
class ANALYTICS_VISIBLE StorageAnalyticsGenerator : public PeriodicAnalyticsGeneratorAbs {
public:
    StorageAnalyticsGenerator();
    ~StorageAnalyticsGenerator() override = default;

    // A fixed-frequency policy of t_StorageAnalyticsIntervalSec seconds (86400 if it is not set),
    // read anew by each call.
    IAnalyticsSchedulingPolicy* createPolicy() override;

    AnalyticsParcel* finalizeInternal() override;

private:
    static const std::string analyticsCategory;
    static const std::string parcelName;
    static const std::string m_latencyThresholdName;
    static const std::vector<std::string> m_storageLatencyNamesCms;
    static const std::string m_maxHighStorageLatencyDurationNameCm;

    StorageAnalyticsCounters m_storageAnalyticsCounters{};
};
