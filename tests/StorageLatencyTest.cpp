#include "host/services/StorageLatency.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <numeric>
#include <thread>
#include <vector>

namespace {

constexpr u64 us = 1'000;
constexpr u64 ms = 1'000'000;
constexpr AIO::Limits limits{100, {10, 20, 30, 40}}; // microseconds

using Classes = std::vector<u32>;

class StorageLatencyTest : public testing::Test {
protected:
    StorageAnalyticsCounters close(u64 nowNs, const AIO::Limits& next = limits) {
        StorageAnalyticsCounters counters;
        latency.closePeriod(counters, next, nowNs);
        return counters;
    }
    Classes classes() {
        const StorageAnalyticsCounters counters = close(0);
        return {std::begin(counters.storageLatency), std::end(counters.storageLatency)};
    }

    StorageLatency latency{limits};
};

TEST_F(StorageLatencyTest, AClassHoldsWhatTookUpToItsBound) {
    for (const u64 latencyNs :
         {0 * us, 10 * us, 10 * us + 1, 20 * us, 30 * us, 40 * us, 40 * us + 1, ~u64{0}}) {
        latency.record(latencyNs, 0);
    }
    EXPECT_EQ(classes(), (Classes{2, 2, 1, 1, 2}));
    EXPECT_EQ(classes(), (Classes{0, 0, 0, 0, 0})); // a reading starts a new period
}

// Each row is the completions of a period that is closed at 100 ms.
TEST_F(StorageLatencyTest, EpisodesBeginAndEndAtCompletions) {
    struct Completion {
        u64 latencyUs, atMs;
    };
    struct Row {
        const char* name;
        std::vector<Completion> completions;
        u64 closedAtMs;
        u32 mean, longest;
    };
    for (const Row& row : std::vector<Row>{
             {"none", {{99, 10}, {5, 20}}, 100, 0, 0},
             {"from the threshold to the first below", {{100, 10}, {9, 20}}, 100, 10, 10},
             {"two", {{100, 10}, {500, 15}, {1, 20}, {100, 30}, {1, 70}}, 100, 25, 40},
             {"one closed, one open at the reading", {{100, 10}, {1, 30}, {100, 60}}, 100, 30, 40},
             {"longer than the record holds", {{100, 0}}, u64{1} << 32U, ~u32{0}, ~u32{0}}}) {
        StorageLatency fresh(limits);
        for (const Completion& completion : row.completions) {
            fresh.record(completion.latencyUs * us, completion.atMs * ms);
        }
        StorageAnalyticsCounters counters;
        fresh.closePeriod(counters, limits, row.closedAtMs * ms);
        EXPECT_EQ(counters.avrHighStorageLatencyDuration, row.mean) << row.name;
        EXPECT_EQ(counters.maxHighStorageLatencyDuration, row.longest) << row.name;
    }
}

TEST_F(StorageLatencyTest, AnEpisodeThatOutlivesThePeriodGoesOnAsANewOne) {
    latency.record(100 * us, 10 * ms);
    EXPECT_EQ(close(30 * ms).maxHighStorageLatencyDuration, 20U);
    latency.record(1, 42 * ms);
    EXPECT_EQ(close(90 * ms).maxHighStorageLatencyDuration, 12U);
}

TEST_F(StorageLatencyTest, LimitsTakeEffectWithTheNextPeriod) {
    constexpr AIO::Limits wider{7, {1'000, 2'000, 3'000, 4'000}};
    for (const auto& [inForce, expectedClass] : {std::pair(limits, 2), std::pair(wider, 0)}) {
        latency.record(25 * us, 0);
        const StorageAnalyticsCounters counters = close(0, wider);
        EXPECT_EQ(counters.latencyThreshold, inForce.threshold);
        EXPECT_EQ(counters.storageLatency[expectedClass], 1U);
        EXPECT_EQ(latency.limitsOfClosedPeriod().bounds[0], inForce.bounds[0]);
    }
}

TEST_F(StorageLatencyTest, NothingIsLostBetweenReadingAndRecording) {
    constexpr u64 perThread = 12'000;
    constexpr unsigned int threadCount = ThreadLane::count + 2; // so that some have no lane
    std::atomic<unsigned int> started{0};
    const auto record = [&] {
        ThreadLane::mine();
        for (++started; started < threadCount;) {
            std::this_thread::yield();
        }
        for (u64 i = 0; i < perThread; i += 4) {
            latency.record(i % 50 * us, 0);
            StorageLatency::Batch batch(latency, i);
            for (const u64 latencyNs : {us, 200 * us, us}) {
                batch.record(latencyNs);
            }
        }
    };
    std::vector<std::thread> threads;
    std::generate_n(std::back_inserter(threads), threadCount, [&] { return std::thread(record); });
    u64 total = 0;
    for (int i = 0; i <= 1'000; ++i) {
        if (i == 1'000) {
            std::for_each(threads.begin(), threads.end(), [](std::thread& each) { each.join(); });
        }
        const Classes period = classes();
        total += std::accumulate(period.begin(), period.end(), u64{0});
    }
    EXPECT_EQ(total, threadCount * perThread);
}

} // namespace
