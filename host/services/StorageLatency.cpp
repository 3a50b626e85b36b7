#include "host/services/StorageLatency.h"

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Singleton.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <utility>

namespace {

template <typename To = u32>
To saturated(u64 value) {
    return static_cast<To>(std::min<u64>(value, std::numeric_limits<To>::max()));
}

u32 microsecondsRoundedUp(u64 ns) {
    return saturated(ns / nsPerUs + (ns % nsPerUs != 0 ? 1 : 0));
}

// What was added since the last reading.
u64 takeIncrease(u64 total, u64& readSoFar) {
    return total - std::exchange(readSoFar, total);
}

} // namespace

StorageLimits liveStorageLimits() {
    DynamicTweaks& tweaks = *Singleton<DynamicTweaks, DynamicTweaks>::instance();
    const CheckedLock lock(tweaks.together);
    return {tweaks.t_StorageAnalyticsLatencyThreshold,
            {tweaks.t_StorageAnalyticsLatencyFast, tweaks.t_StorageAnalyticsLatencyModerate,
             tweaks.t_StorageAnalyticsLatencySlow, tweaks.t_StorageAnalyticsLatencyVerySlow}};
}

StorageLatency::StorageLatency(LimitsSource limits, ClockSource clock)
    : m_limitsInForce(limits()),
      m_limitsSource(std::move(limits)),
      m_clock(std::move(clock)),
      m_limits(m_limitsSource()),
      m_periodStartNs(m_clock()) {
    m_limitsInForce.replace(m_limits);
}

StoragePeriod StorageLatency::closePeriod() {
    const StorageLimits next = m_limitsSource();
    const CheckedLock lock(m_mutex);
    const u64 nowNs = m_clock();
    StoragePeriod period;
    period.limits = m_limits;
    period.counters.latencyThreshold = m_limits.threshold;
    period.periodMs = (nowNs - m_periodStartNs) / nsPerMs;
    readEpisodes(period, nowNs);
    readClasses(period);
    m_periodStartNs = nowNs;
    m_limits = next;
    m_limitsInForce.replace(next);
    m_closed = period;
    return period;
}

StoragePeriod StorageLatency::closedPeriod() const {
    const CheckedLock lock(m_mutex);
    return m_closed;
}

bool StorageLatency::hasCounted() {
    const CheckedLock lock(m_mutex);
    const auto& classes = m_readSoFar.classes;
    return std::accumulate(classes.begin(), classes.end(), m_readSoFar.failed) != 0 ||
           m_inFlight.oldestStartNs().has_value();
}

void StorageLatency::raise(std::atomic<u64>& longest, u64 latencyNs) {
    u64 current = longest.load(std::memory_order_relaxed);
    while (latencyNs > current &&
           !longest.compare_exchange_weak(current, latencyNs, std::memory_order_relaxed)) {
    }
}

void StorageLatency::countWithCare(u64 latencyNs) {
    const LimitsInForce::Verdict verdict = m_limitsInForce.judge(latencyNs);
    noteIfSlow(verdict.isSlow, latencyNs);
    const unsigned int number = ThreadLane::mine();
    Lane& lane = m_lanes[number];
    raise(lane.longestNs, latencyNs);
    add(number, lane.histogram[LatencyBuckets::of(latencyNs)]);
    add(number, lane.classes[verdict.latencyClass]);
}

void StorageLatency::countFailedIo(u64 latencyNs) {
    noteIfSlow(m_limitsInForce.judge(latencyNs).isSlow, latencyNs);
    const unsigned int number = ThreadLane::mine();
    add(number, m_lanes[number].failed);
}

void StorageLatency::add(unsigned int lane, Counter& counter) {
    if (lane < ThreadLane::count) {
        increment(counter);
    } else { // many threads' own
        counter.fetch_add(1, std::memory_order_release);
    }
}

// I/Os enter an episode in the order in which they take the mutex.
void StorageLatency::noteIfSlow(bool slow, u64 latencyNs) {
    if (!slow && !m_episodeIsOpen.load(std::memory_order_relaxed)) {
        return;
    }
    const CheckedLock lock(m_mutex);
    const u64 nowNs = m_clock();
    m_episodes.completed(slow, nowNs - std::min(latencyNs, nowNs), nowNs);
    m_episodeIsOpen.store(m_episodes.isOpen(), std::memory_order_relaxed);
}

void StorageLatency::readEpisodes(StoragePeriod& period, u64 nowNs) {
    std::optional<u64> oldestNs = m_inFlight.oldestStartNs();
    if (oldestNs && *oldestNs + m_limits.threshold * nsPerUs > nowNs) {
        oldestNs.reset(); // not slow yet
    }
    const LatencyEpisodes::Summary summary = m_episodes.closePeriod(oldestNs, nowNs);
    m_episodeIsOpen.store(m_episodes.isOpen(), std::memory_order_relaxed);
    const u64 meanNs = summary.episodes == 0 ? 0 : summary.sumNs / summary.episodes;
    period.counters.avrHighStorageLatencyDuration = saturated(meanNs / nsPerMs);
    period.counters.maxHighStorageLatencyDuration = saturated(summary.longestNs / nsPerMs);
    period.episodes = saturated(summary.episodes);
    period.episodeSumMs = summary.sumNs / nsPerMs;
}

void StorageLatency::readClasses(StoragePeriod& period) {
    Totals totals;
    for (const Lane& lane : m_lanes) {
        for (std::size_t i = 0; i < classCount; ++i) {
            totals.classes[i] += lane.classes[i].load(std::memory_order_acquire);
        }
        totals.failed += lane.failed.load(std::memory_order_relaxed);
    }
    u64 ios = 0;
    for (std::size_t i = 0; i < classCount; ++i) {
        const u64 count = takeIncrease(totals.classes[i], m_readSoFar.classes[i]);
        period.counters.storageLatency[i] = saturated(count);
        ios += count;
    }
    period.failedIos = takeIncrease(totals.failed, m_readSoFar.failed);
    if (ios != 0) {
        readPercentiles(period);
    }
}

// An I/O that is counted during the reading may be in the histogram of one period and in the class
// of the next, and its latency may be the longest of either. So the longest latency is limited to
// the highest bucket of the histogram.
void StorageLatency::readPercentiles(StoragePeriod& period) {
    LatencyHistogram histogram{};
    for (const Lane& lane : m_lanes) {
        for (std::size_t bucket = 0; bucket < histogram.size(); ++bucket) {
            histogram[bucket] += lane.histogram[bucket].load(std::memory_order_relaxed);
        }
    }
    std::size_t highest = 0;
    u64 total = 0;
    for (std::size_t bucket = 0; bucket < histogram.size(); ++bucket) {
        histogram[bucket] = takeIncrease(histogram[bucket], m_readSoFar.histogram[bucket]);
        total += histogram[bucket];
        highest = histogram[bucket] != 0 ? bucket : highest;
    }
    const u64 longestNs = std::clamp(takeLongestNs(), LatencyBuckets::shortest(highest),
                                     LatencyBuckets::longest(highest));
    const auto percentileUs = [&](u64 thousandths) {
        return microsecondsRoundedUp(
            std::min(percentileNs(histogram, total, thousandths), longestNs));
    };
    period.p50Us = percentileUs(500);
    period.p90Us = percentileUs(900);
    period.p99Us = percentileUs(990);
    period.p999Us = percentileUs(999);
    period.maxUs = microsecondsRoundedUp(longestNs);
}

u64 StorageLatency::takeLongestNs() {
    u64 longestNs = 0;
    for (Lane& lane : m_lanes) {
        longestNs = std::max(longestNs, lane.longestNs.exchange(0, std::memory_order_relaxed));
    }
    return longestNs;
}
