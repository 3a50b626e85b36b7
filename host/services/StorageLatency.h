#pragma once

#include "common/infra/AIO.h"
#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "host/services/ThreadLane.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>

// The latency counters behind AIO. Time is an argument: nanoseconds of any clock that does not run
// backwards. Every operation may be called from any thread.
//
// Counts only ever grow, in a shard of the recording thread's own; a period is the difference
// between two readings. So recording is a plain addition, and no I/O is lost or counted twice
// however readings and recordings interleave. Episodes are rare and sit behind a mutex that
// recording takes only where one begins or ends.
class ANALYTICS_EXPORT StorageLatency {
public:
    static constexpr std::size_t classCount = 5;

    explicit StorageLatency(const AIO::Limits& limits);
    StorageLatency(const StorageLatency&) = delete;
    StorageLatency& operator=(const StorageLatency&) = delete;

    // Counts one I/O that took `latencyNs` and completed at `nowNs`.
    void record(u64 latencyNs, u64 nowNs) {
        noteEpisode(latencyNs, nowNs);
        count(classOf(latencyNs), 1);
    }

    // Counts I/Os whose completions were seen at the same moment: one addition for a run of them
    // that fall into the same class, as nearly all do. They are in the counters from the batch's
    // destruction on.
    class Batch {
    public:
        Batch(StorageLatency& latency, u64 nowNs) : m_latency(latency), m_nowNs(nowNs) {}
        ~Batch() { flush(); }
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;

        void record(u64 latencyNs) {
            m_latency.noteEpisode(latencyNs, m_nowNs);
            const std::size_t latencyClass = m_latency.classOf(latencyNs);
            if (latencyClass != m_class) {
                flush();
                m_class = latencyClass;
            }
            ++m_run;
        }

    private:
        void flush() {
            m_latency.count(m_class, m_run);
            m_run = 0;
        }

        StorageLatency& m_latency;
        const u64 m_nowNs;
        std::size_t m_class = 0; // of the last m_run I/Os, which are not in the counters yet
        u64 m_run = 0;
    };

    // Writes the counters of the period that ends now, and starts one under the given limits.
    void closePeriod(StorageAnalyticsCounters& counters, const AIO::Limits& next, u64 nowNs);

    AIO::Limits limitsOfClosedPeriod() const;

private:
    static constexpr std::size_t boundCount = classCount - 1;
    static constexpr std::size_t cacheLine = 64;

    struct alignas(cacheLine) Shard {
        std::array<std::atomic<u64>, classCount> counts{};
    };

    std::size_t classOf(u64 latencyNs) const {
        std::size_t index = 0;
        for (const auto& bound : m_boundsNs) {
            index += latencyNs > bound.load(std::memory_order_relaxed) ? 1 : 0;
        }
        return index;
    }

    void noteEpisode(u64 latencyNs, u64 nowNs) {
        const bool isHigh = latencyNs >= m_thresholdNs.load(std::memory_order_relaxed);
        if (__builtin_expect(isHigh != m_inEpisode.load(std::memory_order_relaxed), 0)) {
            turnEpisode(isHigh, nowNs);
        }
    }

    void count(std::size_t latencyClass, u64 ios) {
        const unsigned int lane = ThreadLane::mine();
        std::atomic<u64>& counter = m_shards[lane].counts[latencyClass];
        if (lane < ThreadLane::count) {
            counter.store(counter.load(std::memory_order_relaxed) + ios, std::memory_order_relaxed);
        } else {
            counter.fetch_add(ios, std::memory_order_relaxed);
        }
    }

    void turnEpisode(bool begins, u64 nowNs);
    void countEpisodeUntil(u64 nowNs);
    void apply(const AIO::Limits& limits);

    // Read by every recording, written when a period or an episode begins.
    alignas(cacheLine) std::array<std::atomic<u64>, boundCount> m_boundsNs{};
    std::atomic<u64> m_thresholdNs{0};
    std::atomic<bool> m_inEpisode{false};

    // One for each lane, and one that the threads without a lane share.
    std::array<Shard, ThreadLane::count + 1> m_shards{};

    // Under the mutex.
    mutable std::mutex m_mutex;
    AIO::Limits m_limits;
    AIO::Limits m_closedLimits;
    std::array<u64, classCount> m_readSoFar{}; // sums over the shards at the last reading
    u64 m_episodeStartNs = 0;
    u64 m_episodes = 0; // that ended in this period, their durations' sum and the longest one
    u64 m_episodeSumNs = 0;
    u64 m_longestEpisodeNs = 0;
};
