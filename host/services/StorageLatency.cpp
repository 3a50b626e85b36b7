#include "host/services/StorageLatency.h"

#include <algorithm>
#include <limits>

namespace {

constexpr u64 nsPerUs = 1'000;
constexpr u64 nsPerMs = 1'000'000;

// A counter that reaches the top of the record's u32 stays there.
u32 saturated(u64 value) {
    return static_cast<u32>(std::min<u64>(value, std::numeric_limits<u32>::max()));
}

} // namespace

StorageLatency::StorageLatency(const AIO::Limits& limits)
    : m_limits(limits), m_closedLimits(limits) {
    apply(limits);
}

void StorageLatency::closePeriod(StorageAnalyticsCounters& counters, const AIO::Limits& next,
                                 u64 nowNs) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_inEpisode.load(std::memory_order_relaxed)) {
        countEpisodeUntil(nowNs);
    }
    counters.latencyThreshold = m_limits.threshold;
    for (std::size_t i = 0; i < classCount; ++i) {
        u64 total = 0;
        for (const Shard& shard : m_shards) {
            total += shard.counts[i].load(std::memory_order_relaxed);
        }
        counters.storageLatency[i] = saturated(total - m_readSoFar[i]);
        m_readSoFar[i] = total;
    }
    const u64 meanNs = m_episodes == 0 ? 0 : m_episodeSumNs / m_episodes;
    counters.avrHighStorageLatencyDuration = saturated(meanNs / nsPerMs);
    counters.maxHighStorageLatencyDuration = saturated(m_longestEpisodeNs / nsPerMs);

    m_episodes = m_episodeSumNs = m_longestEpisodeNs = 0;
    m_closedLimits = m_limits;
    m_limits = next;
    apply(next);
}

AIO::Limits StorageLatency::limitsOfClosedPeriod() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_closedLimits;
}

void StorageLatency::turnEpisode(bool begins, u64 nowNs) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (begins == m_inEpisode.load(std::memory_order_relaxed)) {
        return; // another thread's I/O has turned it
    }
    if (begins) {
        m_episodeStartNs = nowNs;
    } else {
        countEpisodeUntil(nowNs);
    }
    m_inEpisode.store(begins, std::memory_order_relaxed);
}

// Counts the open episode, and lets what remains of it be a new one.
void StorageLatency::countEpisodeUntil(u64 nowNs) {
    // Threads may come here in another order than that of their clock readings.
    const u64 durationNs = nowNs > m_episodeStartNs ? nowNs - m_episodeStartNs : 0;
    ++m_episodes;
    m_episodeSumNs += durationNs;
    m_longestEpisodeNs = std::max(m_longestEpisodeNs, durationNs);
    m_episodeStartNs = nowNs;
}

void StorageLatency::apply(const AIO::Limits& limits) {
    for (std::size_t i = 0; i < boundCount; ++i) {
        m_boundsNs[i].store(limits.bounds[i] * nsPerUs, std::memory_order_relaxed);
    }
    m_thresholdNs.store(limits.threshold * nsPerUs, std::memory_order_relaxed);
}
