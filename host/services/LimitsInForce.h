#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "host/services/Clock.h"

#include <array>
#include <atomic>
#include <cstddef>

// Latency limits in microseconds. A latency class holds what took up to its bound, the last one
// what took longer. An I/O is slow if it took at least the threshold.
struct ANALYTICS_TAG StorageLimits {
    u32 threshold = 0;
    u32 bounds[4] = {};
};

// The limits that the live tunables hold now.
ANALYTICS_EXPORT StorageLimits liveStorageLimits();

// The limits that latencies are compared with. Any thread judges, without waiting, while one
// replaces them.
//
// replace() writes the next of four places and then puts it in force, so it does not change the
// place that a judge() reads. A judge() starts again only if three replacements came meanwhile.
class ANALYTICS_TAG LimitsInForce {
public:
    struct Verdict {
        std::size_t latencyClass;
        bool isSlow;
    };

    explicit LimitsInForce(const StorageLimits& limits) { replace(limits); }

    Verdict judge(u64 latencyNs) const {
        for (;;) {
            const u64 version = m_version.load(std::memory_order_acquire);
            const Place& place = m_places[version % placeCount];
            Verdict verdict{0, latencyNs >= place.thresholdNs.load(std::memory_order_acquire)};
#pragma GCC unroll 4
            for (std::size_t i = 0; i < boundCount; ++i) {
                verdict.latencyClass +=
                    latencyNs > place.boundsNs[i].load(std::memory_order_acquire) ? 1U : 0U;
            }
            if (__builtin_expect(
                    m_version.load(std::memory_order_relaxed) - version < placeCount - 1, 1)) {
                return verdict;
            }
        }
    }

    // One thread at a time.
    void replace(const StorageLimits& limits) {
        const u64 next = m_version.load(std::memory_order_relaxed) + 1;
        Place& place = m_places[next % placeCount];
        place.thresholdNs.store(limits.threshold * nsPerUs, std::memory_order_release);
        for (std::size_t i = 0; i < place.boundsNs.size(); ++i) {
            place.boundsNs[i].store(limits.bounds[i] * nsPerUs, std::memory_order_release);
        }
        m_version.store(next, std::memory_order_release);
    }

private:
    static constexpr u64 placeCount = 4;
    static constexpr std::size_t boundCount = 4;

    struct alignas(64) Place {
        std::atomic<u64> thresholdNs{0};
        std::array<std::atomic<u64>, boundCount> boundsNs{};
    };

    std::array<Place, placeCount> m_places{};
    std::atomic<u64> m_version{0};
};
