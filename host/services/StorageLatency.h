#pragma once

#include "common/infra/AIO.h"
#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Lock.h"
#include "host/services/Clock.h"
#include "host/services/InFlightIos.h"
#include "host/services/LatencyBuckets.h"
#include "host/services/LatencyEpisodes.h"
#include "host/services/LimitsInForce.h"
#include "host/services/ThreadLane.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>

// The figures of a counting period.
struct ANALYTICS_TAG StoragePeriod {
    StorageAnalyticsCounters counters;
    StorageLimits limits; // in force during the period
    u64 failedIos = 0;
    u32 p50Us = 0; // percentiles of the latencies, at most 3.1 % off, rounded up
    u32 p90Us = 0;
    u32 p99Us = 0;
    u32 p999Us = 0;
    u32 maxUs = 0; // the longest latency, rounded up; as inexact as a percentile if I/Os were
                   // counted while the period was closed
    u64 periodMs = 0;
    u32 episodes = 0; // high-latency episodes, and the sum of their durations
    u64 episodeSumMs = 0;
};

// Counters of I/Os and their latencies: those of the process, behind AIO, or a set of a host's own,
// such as its reads, or one device. StorageSetGenerator reports a set.
//
// Any thread. The first threads count in a lane each, by plain additions; further ones share a lane
// by atomic additions. Counts only grow, and a period is the difference between two readings, so an
// I/O is in exactly one period. An I/O that is counted while a period is closed may be counted
// under the limits of that period. A latency is compared with one set of limits, never with a
// mixture of two.
class ANALYTICS_EXPORT StorageLatency {
public:
    using LimitsSource = std::function<StorageLimits()>;
    using ClockSource = std::function<u64()>; // nanoseconds; never runs backwards

    explicit StorageLatency(LimitsSource limits = liveStorageLimits,
                            ClockSource clock = monotonicNs);
    StorageLatency(const StorageLatency&) = delete;
    StorageLatency& operator=(const StorageLatency&) = delete;

    // Counts an I/O that took so long and completed now.
    __attribute__((always_inline)) void countIo(u64 latencyNs) {
        const LimitsInForce::Verdict verdict = m_limitsInForce.judge(latencyNs);
        const unsigned int number = ThreadLane::known();
        if (__builtin_expect(
                number == ThreadLane::count || needsCare(verdict.isSlow, latencyNs, number), 0)) {
            countWithCare(latencyNs);
            return;
        }
        Lane& lane = m_lanes[number];
        increment(lane.histogram[LatencyBuckets::of(latencyNs)]);
        increment(lane.classes[verdict.latencyClass]);
    }
    // The same for an I/O that failed: it is in no class and no percentile.
    void countFailedIo(u64 latencyNs);

    // Ends the counting period and starts the next one under the limits of the source.
    StoragePeriod closePeriod();
    // The period that was closed last.
    StoragePeriod closedPeriod() const;
    // Whether an I/O was ever counted in a closed period, or is in flight.
    bool hasCounted();

    InFlightIos& inFlight() { return m_inFlight; }

private:
    static constexpr std::size_t classCount = 5;
    static constexpr std::size_t cacheLine = 64;

    using Counter = std::atomic<u64>;

    struct alignas(cacheLine) Lane {
        std::array<Counter, classCount> classes{};
        Counter failed{0};
        std::atomic<u64> longestNs{0}; // since the last reading
        std::array<Counter, LatencyBuckets::count> histogram{};
    };
    // Sums over the lanes.
    struct Totals {
        std::array<u64, classCount> classes{};
        u64 failed = 0;
        LatencyHistogram histogram{};
    };

    // Whether the I/O needs more than its two additions.
    bool needsCare(bool slow, u64 latencyNs, unsigned int lane) const {
        return slow || m_episodeIsOpen.load(std::memory_order_relaxed) ||
               latencyNs > m_lanes[lane].longestNs.load(std::memory_order_relaxed);
    }

    // Only for a counter that this thread alone writes. The release orders an I/O's additions: a
    // reading that sees the last one sees them all.
    static void increment(Counter& counter) {
        counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    void countWithCare(u64 latencyNs);
    void add(unsigned int lane, Counter& counter);
    void noteIfSlow(bool slow, u64 latencyNs);
    static void raise(std::atomic<u64>& longest, u64 latencyNs);
    void readEpisodes(StoragePeriod& period, u64 nowNs) ANALYTICS_REQUIRES(m_mutex);
    void readClasses(StoragePeriod& period) ANALYTICS_REQUIRES(m_mutex);
    void readPercentiles(StoragePeriod& period) ANALYTICS_REQUIRES(m_mutex);
    u64 takeLongestNs();

    LimitsInForce m_limitsInForce;
    InFlightIos m_inFlight;
    std::array<Lane, ThreadLane::count + 1> m_lanes{}; // the last one is shared

    std::atomic<bool> m_episodeIsOpen{false};

    // Fixed after construction.
    const LimitsSource m_limitsSource;
    const ClockSource m_clock;

    mutable CheckedMutex m_mutex;
    LatencyEpisodes m_episodes ANALYTICS_GUARDED_BY(m_mutex);
    StorageLimits m_limits ANALYTICS_GUARDED_BY(m_mutex);
    Totals m_readSoFar ANALYTICS_GUARDED_BY(m_mutex);
    u64 m_periodStartNs ANALYTICS_GUARDED_BY(m_mutex);
    StoragePeriod m_closed ANALYTICS_GUARDED_BY(m_mutex);
};
