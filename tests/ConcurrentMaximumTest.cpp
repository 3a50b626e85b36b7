#include "common/Analytics/AnalyticsConcurrentMaximumMetric.h"
#include "tests/support/Test.h"

namespace {

// Periods of up to three samples, each after each other one.
template <typename T>
void expectTheLargestOfEachPeriod() {
    constexpr T lowest = std::numeric_limits<T>::lowest();
    constexpr T top = std::numeric_limits<T>::max();
    const std::optional<T> samples[] = {{}, lowest, lowest + 1, T(-7), 0, 5, top - 1, top};
    AnalyticsConcurrentMaximumMetric<T> metric("longestWriteUs");
    EXPECT_EQ(metric.name(), "longestWriteUs");
    for (unsigned period = 0; period < 8 * 8 * 8; ++period) {
        const auto three = {samples[period / 64], samples[period / 8 % 8], samples[period % 8]};
        for (const auto& sample : three) {
            sample ? metric.update(*sample) : void();
        }
        EXPECT_EQ(metric.take(), std::max(three));
    }
}

TEST(ConcurrentMaximum, TakesTheLargestSampleOfEachPeriod) {
    expectTheLargestOfEachPeriod<u64>();
    expectTheLargestOfEachPeriod<s64>();
    expectTheLargestOfEachPeriod<u32>();
}

// Looks closely for a while, so that both threads go on at the same time where each has a
// processor, and lets others run where they don't.
void await(const std::atomic<u64>& value, u64 expected) {
    for (int looks = 1; value.load(std::memory_order_acquire) < expected; ++looks) {
        if (looks % 1000 == 0) {
            std::this_thread::yield();
        }
    }
}

// In each round another thread updates once, while this one updates in ascending order and takes.
// All samples must be in one of the round's two periods, so the largest must come out exactly once.
TEST(ConcurrentMaximum, LosesNoMaximumBetweenTwoThreads) {
    constexpr u64 rounds = 100'000;
    AnalyticsConcurrentMaximumMetric<u64> metric("race");
    std::atomic<u64> started{0}, done{0};
    const auto ours = [](u64 round) { return 1 + round % 40 / 2 * 2; };
    const auto theirs = [&](u64 round) { return ours(round) + 1 - round % 2 * 2; };
    const auto other = std::async(std::launch::async, [&] {
        for (u64 round = 1; round <= rounds; ++round) {
            await(started, round);
            metric.update(theirs(round));
            done = round;
        }
    });
    u64 wrong = 0;
    for (u64 round = 1; round <= rounds; ++round) {
        started = round;
        for (u64 sample = 1; sample <= ours(round); sample += 2) {
            metric.update(sample);
        }
        const std::optional<u64> first = metric.take();
        await(done, round);
        const std::optional<u64> largest = std::max(ours(round), theirs(round));
        wrong += (first == largest) == (metric.take() == largest) ? 1 : 0;
    }
    EXPECT_EQ(wrong, 0U);
}

} // namespace
