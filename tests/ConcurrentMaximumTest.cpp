#include "common/Analytics/AnalyticsConcurrentMaximumMetric.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <optional>
#include <thread>
#include <vector>

namespace {

template <typename T>
void expectTheLargestOfEachPeriod() {
    constexpr T lowest = std::numeric_limits<T>::lowest();
    constexpr T top = std::numeric_limits<T>::max();
    const std::vector<std::vector<T>> periods{
        {},
        {5},
        {},
        {5, 5, 3, 6, 4},
        {2, 1},
        {lowest},
        {},
        {lowest, lowest},
        {lowest, 7, lowest}, // the next period must not see the lowest one of this
        {},
        {static_cast<T>(lowest + 1), lowest},
        {top, 0, static_cast<T>(top - 1)},
        {static_cast<T>(top - 1)}};
    AnalyticsConcurrentMaximumMetric<T> metric("metric");
    for (const std::vector<T>& samples : periods) {
        std::optional<T> largest;
        for (const T sample : samples) {
            metric.update(sample);
            largest = std::max(largest, std::optional<T>(sample));
        }
        EXPECT_EQ(metric.take(), largest) << sizeof(T) << " bytes";
    }
}

TEST(ConcurrentMaximum, TakesTheLargestSampleOfEachPeriod) {
    expectTheLargestOfEachPeriod<u64>();
    expectTheLargestOfEachPeriod<s64>();
    expectTheLargestOfEachPeriod<u32>();
}

TEST(ConcurrentMaximum, TakesTheLargestOfNegativeSamples) {
    AnalyticsConcurrentMaximumMetric<s64> metric("balance");
    metric.update(-7);
    metric.update(-3);
    metric.update(-5);
    EXPECT_EQ(metric.take(), -3);
}

TEST(ConcurrentMaximum, HasTheNameGivenAtConstruction) {
    EXPECT_EQ(AnalyticsConcurrentMaximumMetric<u64>("longestWriteUs").name(), "longestWriteUs");
}

// In each round another thread updates once, while this one updates in ascending order and takes.
// All samples must be in one of the round's two periods, so the largest must come out exactly once.
class MaximumRace {
public:
    MaximumRace() : m_other([this] { run(); }) {}
    ~MaximumRace() {
        start(ended);
        m_other.join();
    }
    MaximumRace(const MaximumRace&) = delete;
    MaximumRace& operator=(const MaximumRace&) = delete;

    // What the two periods of a round came to. Our samples are 1, 3, 5 and so on, up to `ours`.
    std::vector<std::optional<u64>> round(u64 number, u64 theirs, u64 ours) {
        m_theirs = theirs;
        start(number);
        for (u64 sample = 1; sample <= ours; sample += 2) {
            m_metric.update(sample);
        }
        const std::optional<u64> first = m_metric.take();
        await(m_done, number);
        return {first, m_metric.take()};
    }

private:
    static constexpr u64 ended = ~u64{0};

    // Looks closely for a while, so that both threads go on at the same time where each has a
    // processor, and lets others run where they don't.
    static u64 await(const std::atomic<u64>& value, u64 expected) {
        for (int looks = 1;; ++looks) {
            const u64 seen = value.load(std::memory_order_acquire);
            if (seen >= expected) {
                return seen;
            }
            if (looks % 1000 == 0) {
                std::this_thread::yield();
            }
        }
    }
    void start(u64 number) { m_started.store(number, std::memory_order_release); }
    void run() {
        for (u64 number = 1;; ++number) {
            if (await(m_started, number) == ended) {
                return;
            }
            m_metric.update(m_theirs);
            m_done.store(number, std::memory_order_release);
        }
    }

    AnalyticsConcurrentMaximumMetric<u64> m_metric{"race"};
    u64 m_theirs = 0; // handed over by m_started
    std::atomic<u64> m_started{0};
    std::atomic<u64> m_done{0};
    std::thread m_other;
};

TEST(ConcurrentMaximum, LosesNoMaximumBetweenTwoThreads) {
    MaximumRace race;
    for (u64 number = 1; number <= 100'000; ++number) {
        const u64 ours = 1 + number % 40 / 2 * 2;
        const u64 theirs = number % 2 == 0 ? ours + 1 : ours / 2 * 2;
        const auto taken = race.round(number, theirs, ours);
        ASSERT_EQ(std::count(taken.begin(), taken.end(), std::max(theirs, ours)), 1)
            << "round " << number << " with " << theirs << " against " << ours;
    }
}

} // namespace
