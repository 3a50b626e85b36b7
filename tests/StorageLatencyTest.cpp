#include "host/services/StorageLatency.h"

#include <gtest/gtest.h>

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

    Classes classes(u64 nowNs = 0) {
        const StorageAnalyticsCounters counters = close(nowNs);
        return {std::begin(counters.storageLatency), std::end(counters.storageLatency)};
    }

    StorageLatency latency{limits};
};

TEST_F(StorageLatencyTest, AClassHoldsWhatTookUpToItsBound) {
    struct Row {
        u64 latencyNs;
        std::size_t expectedClass;
    };
    for (const Row& row : std::vector<Row>{{0, 0},
                                           {10 * us, 0},
                                           {10 * us + 1, 1},
                                           {20 * us, 1},
                                           {30 * us, 2},
                                           {40 * us, 3},
                                           {40 * us + 1, 4},
                                           {~u64{0}, 4}}) {
        latency.record(row.latencyNs, 0);
        Classes expected(5, 0);
        expected[row.expectedClass] = 1;
        EXPECT_EQ(classes(), expected) << row.latencyNs << " ns";
    }
}

TEST_F(StorageLatencyTest, AReadingStartsANewPeriod) {
    latency.record(1, 0);
    EXPECT_EQ(classes(), (Classes{1, 0, 0, 0, 0}));
    EXPECT_EQ(classes(), (Classes{0, 0, 0, 0, 0}));
    latency.record(1, 0);
    latency.record(25 * us, 0);
    EXPECT_EQ(classes(), (Classes{1, 0, 1, 0, 0}));
}

TEST_F(StorageLatencyTest, CountersSaturate) {
    constexpr u64 tooMany = u64{1} << 32U;
    latency.record(200 * us, 0); // begins an episode of more milliseconds than a u32 holds
    const StorageAnalyticsCounters counters = close(tooMany * ms);
    EXPECT_EQ(counters.maxHighStorageLatencyDuration, ~u32{0});
    EXPECT_EQ(counters.avrHighStorageLatencyDuration, ~u32{0});
}

// Each row is a completion; the durations are those of the period closed at 100 ms.
TEST_F(StorageLatencyTest, EpisodesBeginAndEndAtCompletions) {
    struct Completion {
        u64 latencyUs;
        u64 atMs;
    };
    struct Row {
        const char* name;
        std::vector<Completion> completions;
        u32 mean, longest;
    };
    const std::vector<Row> rows = {
        {"none", {{99, 10}, {5, 20}}, 0, 0},
        {"begins at the threshold, ends with the first below",
         {{100, 10}, {500, 20}, {99, 35}},
         25,
         25},
        {"two", {{100, 10}, {1, 20}, {100, 30}, {1, 70}}, 25, 40},
        {"open at the reading", {{100, 40}}, 60, 60},
        {"one closed, one open", {{100, 10}, {1, 30}, {100, 60}}, 30, 40},
    };
    for (const Row& row : rows) {
        StorageLatency fresh(limits);
        for (const Completion& completion : row.completions) {
            fresh.record(completion.latencyUs * us, completion.atMs * ms);
        }
        StorageAnalyticsCounters counters;
        fresh.closePeriod(counters, limits, 100 * ms);
        EXPECT_EQ(counters.avrHighStorageLatencyDuration, row.mean) << row.name;
        EXPECT_EQ(counters.maxHighStorageLatencyDuration, row.longest) << row.name;
    }
}

TEST_F(StorageLatencyTest, AnEpisodeThatOutlivesThePeriodGoesOnAsANewOne) {
    latency.record(100 * us, 10 * ms);
    EXPECT_EQ(close(30 * ms).maxHighStorageLatencyDuration, 20U);
    EXPECT_EQ(close(35 * ms).maxHighStorageLatencyDuration, 5U);
    latency.record(1, 42 * ms);
    EXPECT_EQ(close(90 * ms).maxHighStorageLatencyDuration, 7U);
    EXPECT_EQ(close(99 * ms).maxHighStorageLatencyDuration, 0U);
}

TEST_F(StorageLatencyTest, LimitsTakeEffectWithTheNextPeriod) {
    constexpr AIO::Limits wider{7, {1'000, 2'000, 3'000, 4'000}};
    latency.record(25 * us, 0);
    const StorageAnalyticsCounters first = close(0, wider);
    EXPECT_EQ(first.latencyThreshold, limits.threshold);
    EXPECT_EQ(first.storageLatency[2], 1U);
    EXPECT_EQ(latency.limitsOfClosedPeriod().bounds[0], limits.bounds[0]);

    latency.record(25 * us, 5 * ms);
    const StorageAnalyticsCounters second = close(8 * ms);
    EXPECT_EQ(second.latencyThreshold, wider.threshold);
    EXPECT_EQ(second.storageLatency[0], 1U);
    EXPECT_EQ(second.maxHighStorageLatencyDuration, 3U);
    EXPECT_EQ(latency.limitsOfClosedPeriod().bounds[0], wider.bounds[0]);
}

TEST_F(StorageLatencyTest, NothingIsLostBetweenReadingAndRecording) {
    constexpr u64 perThread = 50'000;
    constexpr u64 batched = 8;
    const auto record = [this] {
        for (u64 i = 0; i < perThread; ++i) {
            latency.record(i % 50 * us, 0);
        }
    };
    const auto recordBatches = [this] {
        for (u64 i = 0; i < perThread / batched; ++i) {
            StorageLatency::Batch batch(latency, i);
            for (u64 j = 0; j < batched; ++j) {
                batch.record(j % 2 == 0 ? us : 200 * us);
            }
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(record);
    threads.emplace_back(record);
    threads.emplace_back(recordBatches);
    u64 total = 0;
    const auto read = [&] {
        const Classes counts = classes();
        total += std::accumulate(counts.begin(), counts.end(), u64{0});
    };
    for (int i = 0; i < 1'000; ++i) {
        read();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    read();
    EXPECT_EQ(total, 3 * perThread);
}

} // namespace
