#pragma once

#include "common/infra/AIO.h"
#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>

// The latency counters behind AIO. Time is an argument: nanoseconds of any clock that does not run
// backwards. Every operation may be called from any thread.
//
// Counts only ever grow, in a shard of the recording thread's own; a period is the difference
// between two readings. So recording is one uncontended atomic addition, and no I/O is lost or
// counted twice however readings and recordings interleave. Episodes are rare and sit behind a
// mutex that recording takes only where one begins or ends.
class ANALYTICS_EXPORT StorageLatency {
public:
    static constexpr std::size_t classCount = 5;

    explicit StorageLatency(const AIO::Limits& limits);
    StorageLatency(const StorageLatency&) = delete;
    StorageLatency& operator=(const StorageLatency&) = delete;

    // Counts one I/O that took `latencyNs` and completed at `nowNs`.
    void record(u64 latencyNs, u64 nowNs) {
        noteEpisode(latencyNs, nowNs);
        shard().counts[classOf(latencyNs)].fetch_add(1, std::memory_order_relaxed);
    }

    // Counts I/Os whose completions were seen at the same moment: one atomic addition for a run of
    // them that fall into the same class, as nearly all do. They are in the counters from the
    // batch's destruction on.
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
            m_latency.shard().counts[m_class].fetch_add(m_run, std::memory_order_relaxed);
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
    static constexpr std::size_t shardCount = 16; // threads beyond that share
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

    Shard& shard() {
        if (__builtin_expect(threadNumber == 0, 0)) {
            threadNumber = nextThreadNumber();
        }
        return m_shards[threadNumber % shardCount];
    }

    static std::size_t nextThreadNumber();
    void turnEpisode(bool begins, u64 nowNs);
    void countEpisodeUntil(u64 nowNs);
    void apply(const AIO::Limits& limits);

    // From 1 on; 0: none yet. Placed when the library is loaded and initialised where every user
    // sees it, so that reading it is a plain memory access.
    __attribute__((tls_model("initial-exec"))) inline static thread_local std::size_t threadNumber =
        0;

    // Read by every recording, written when a period or an episode begins.
    alignas(cacheLine) std::array<std::atomic<u64>, boundCount> m_boundsNs{};
    std::atomic<u64> m_thresholdNs{0};
    std::atomic<bool> m_inEpisode{false};

    // Each written by the threads of its number.
    std::array<Shard, shardCount> m_shards{};

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
