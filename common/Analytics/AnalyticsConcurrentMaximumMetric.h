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
// throws. Header-only: an update that is no new maximum is inlined to a load and a comparison.
template <typename T>
class AnalyticsConcurrentMaximumMetric {
public:
    static_assert(std::is_integral_v<T> && std::atomic<T>::is_always_lock_free);

    // Nothing is sampled yet. Any name will do, the empty one included.
    explicit AnalyticsConcurrentMaximumMetric(const std::string& name) : m_name(name) {}

    const std::string& name() const { return m_name; }

    // Counts a sample. Any thread.
    void update(T sample) {
        const T largest = m_largest.load(std::memory_order_relaxed);
        if (sample < largest || (sample == largest && isCounted(sample))) {
            return;
        }
        raise(sample, largest);
    }

    // The largest sample since the last take(); none if there was no sample. Any thread.
    std::optional<T> take() {
        const T largest = m_largest.exchange(lowest, std::memory_order_relaxed);
        const bool lowestCounted = m_lowestCounted.load(std::memory_order_relaxed) &&
                                   m_lowestCounted.exchange(false, std::memory_order_relaxed);
        return largest != lowest || lowestCounted ? std::optional<T>(largest) : std::nullopt;
    }

private:
    static constexpr T lowest = std::numeric_limits<T>::lowest();

    bool isCounted(T largest) const {
        return largest != lowest || m_lowestCounted.load(std::memory_order_relaxed);
    }

    __attribute__((noinline, cold)) void raise(T sample, T largest) {
        if (sample == lowest) {
            m_lowestCounted.store(true, std::memory_order_relaxed);
            return;
        }
        // Tried again only where another thread has changed it in this very moment.
        while (sample > largest &&
               !m_largest.compare_exchange_weak(largest, sample, std::memory_order_relaxed)) {
        }
    }

    const std::string m_name;
    std::atomic<T> m_largest{lowest};         // lowest also stands for no sample,
    std::atomic<bool> m_lowestCounted{false}; // from which this tells it
};
