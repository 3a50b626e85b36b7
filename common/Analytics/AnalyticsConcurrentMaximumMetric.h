#pragma once

#include "common/infra/Defs.h"

#include <atomic>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>

// The largest sample of a period, kept by many threads and taken by the one that reports:
//
//     AnalyticsConcurrentMaximumMetric<u64> longestWrite("longestWriteUs");
//     longestWrite.update(latencyUs);                               // any thread
//     if (const auto longest = longestWrite.take()) {               // the reporter
//         parcel->addEntry(longestWrite.name(), *longest);
//     }
//
// A period lasts from one take() to the next. Each sample is in exactly one of them. T is u64, s64
// or any other integer; every value of it is a sample, the lowest one too. An ordinary object of
// its owner. No operation waits for another thread, logs, needs memory (but the constructor) or
// throws. Header-only: an update that is no new maximum is inlined to a load and a comparison. A
// sample of T's highest value is always a call, and a smaller one after it may be.
template <typename T>
class AnalyticsConcurrentMaximumMetric {
public:
    static_assert(std::is_integral_v<T> && std::atomic<T>::is_always_lock_free);

    // Nothing is sampled yet. Any name will do, the empty one included.
    explicit AnalyticsConcurrentMaximumMetric(const std::string& name) : m_name(name) {}

    const std::string& name() const { return m_name; }

    // Counts a sample. Any thread.
    void update(T sample) {
        if (sample >= m_nextLargest.load(std::memory_order_relaxed)) {
            raise(sample);
        }
    }

    // The largest sample since the last take(); none if there was no sample. Any thread.
    std::optional<T> take() {
        const T nextLargest = m_nextLargest.exchange(lowest, std::memory_order_relaxed);
        if (m_highestCounted.load(std::memory_order_relaxed) &&
            m_highestCounted.exchange(false, std::memory_order_relaxed)) {
            return highest;
        }
        return nextLargest != lowest ? std::optional<T>(static_cast<T>(nextLargest - 1))
                                     : std::nullopt;
    }

private:
    static constexpr T lowest = std::numeric_limits<T>::lowest();
    static constexpr T highest = std::numeric_limits<T>::max();

    __attribute__((noinline, cold)) void raise(T sample) {
        if (sample == highest) { // nothing is above it
            m_highestCounted.store(true, std::memory_order_relaxed);
            return;
        }
        T nextLargest = m_nextLargest.load(std::memory_order_relaxed);
        // Tried again only where another thread has changed it in this very moment.
        while (sample >= nextLargest &&
               !m_nextLargest.compare_exchange_weak(nextLargest, static_cast<T>(sample + 1),
                                                    std::memory_order_relaxed)) {
        }
    }

    const std::string m_name;
    // The least sample that would be a new maximum: one above the largest, or the lowest value if
    // there was no sample. The highest value has no value above it, so it is kept apart.
    std::atomic<T> m_nextLargest{lowest};
    std::atomic<bool> m_highestCounted{false};
};
