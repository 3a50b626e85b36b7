#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <algorithm>
#include <array>
#include <cstddef>

// The buckets of a log-linear histogram of latencies: one for each nanosecond below 16, then 16 of
// equal width for each power of two, up to 4.8 hours. What is longer is in the last one.
class ANALYTICS_TAG LatencyBuckets {
public:
    static constexpr std::size_t count = 656;

    static std::size_t of(u64 latencyNs) {
        const u64 ns = std::min(latencyNs, (u64{1} << powers) - 1);
        // Below 16 ns it is the nanoseconds themselves, as from 16 to 31.
        const auto power = 63U - static_cast<unsigned int>(__builtin_clzll(ns | linear));
        return (power - linearPower) * linear + (ns >> (power - linearPower));
    }

    // The shortest and the longest latency in a bucket. Latencies beyond the last one are in it.
    static u64 shortest(std::size_t bucket) {
        if (bucket < 2 * linear) {
            return bucket;
        }
        return (bucket % linear + linear) << (bucket / linear - 1);
    }
    static u64 longest(std::size_t bucket) {
        return bucket + 1 == count ? ~u64{0} : shortest(bucket + 1) - 1;
    }

    // What stands for all latencies of a bucket: at most 3.1 % from any of them.
    static u64 middle(std::size_t bucket) {
        const u64 end = bucket + 1 == count ? u64{1} << powers : shortest(bucket + 1);
        return shortest(bucket) + (end - 1 - shortest(bucket)) / 2;
    }

private:
    static constexpr unsigned int linearPower = 4;
    static constexpr u64 linear = u64{1} << linearPower;
    static constexpr unsigned int powers = 44;
    static_assert((powers - linearPower + 1) * linear == count);
};

// How many latencies fell into each bucket.
using LatencyHistogram = std::array<u64, LatencyBuckets::count>;

// The latency that so many thousandths of all are not longer than, 0 if there are none.
ANALYTICS_TAG inline u64 percentileNs(const LatencyHistogram& histogram, u64 total,
                                      u64 thousandths) {
    const u64 rank = total / 1000 * thousandths + (total % 1000 * thousandths + 999) / 1000;
    u64 seen = 0;
    for (std::size_t bucket = 0; bucket < histogram.size(); ++bucket) {
        seen += histogram[bucket];
        if (seen >= rank && seen > 0) {
            return LatencyBuckets::middle(bucket);
        }
    }
    return 0;
}
