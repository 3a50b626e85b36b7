#include "benchmarks/Benchmark.h"
#include "common/Analytics/AnalyticsConcurrentMaximumMetric.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

namespace {

constexpr u64 beyondAnySample = ~u64{0};

std::atomic<u64> bare{beyondAnySample};
AnalyticsConcurrentMaximumMetric<u64> metric("largest");

// What is left of an update where there is nothing to keep.
void compareBare(u64 times) {
    u64 sample = 0;
    repeat(times, [&sample] {
        keep(++sample);
        if (sample > bare.load(std::memory_order_relaxed)) {
            bare.store(sample, std::memory_order_relaxed);
        }
    });
}

void update(u64 times) {
    u64 sample = 0;
    repeat(times, [&sample] {
        keep(++sample);
        metric.update(sample);
    });
}

void keepMaximum() {
    metric.update(beyondAnySample - 1); // the highest value is kept apart
}

std::mutex mutex;
u64 guarded = 0;

void raiseAndTakeLocked(u64 times) {
    for (u64 sample = 1; sample <= times; ++sample) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            guarded = std::max(guarded, sample);
        }
        const std::lock_guard<std::mutex> lock(mutex);
        keep(std::exchange(guarded, 0));
    }
}

void raiseAndTake(u64 times) {
    for (u64 sample = 1; sample <= times; ++sample) {
        metric.update(sample);
        keep(metric.take());
    }
}

std::vector<Result> compareUpdates(const Settings& settings) {
    const auto samples = interleave({{"relaxed load and compare", compareBare},
                                     {"update", update, 1, keepMaximum},
                                     {"relaxed load and compare", compareBare, 2},
                                     {"update, two threads", update, 2, keepMaximum},
                                     {"mutex and std::max", raiseAndTakeLocked},
                                     {"new maximum", raiseAndTake}},
                                    settings);
    return {compare("concurrent maximum, a sample that is no new one", samples[1], samples[0],
                    Target::atMost(1.5)),
            compare("concurrent maximum, the same, two threads", samples[3], samples[2],
                    Target::atMost(1.5)),
            compare("concurrent maximum, a new one and its taking", samples[5], samples[4],
                    Target::reported())};
}

} // namespace

std::vector<Benchmark> maximumBenchmarks() {
    return {{"maximum", compareUpdates}};
}
