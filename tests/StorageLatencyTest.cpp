#include "host/services/StorageLatency.h"

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Singleton.h"
#include "host/testing/Installed.h"
#include "host/testing/RecordingLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr u64 us = 1'000;
constexpr u64 ms = 1'000'000;

using Numbers = std::vector<u64>;

Numbers classesOf(const StoragePeriod& period) {
    const u32(&counts)[5] = period.counters.storageLatency;
    return {std::begin(counts), std::end(counts)};
}

Numbers percentilesOf(const StoragePeriod& period) {
    return {period.p50Us, period.p90Us, period.p99Us, period.p999Us, period.maxUs};
}

// Their number, sum, mean and longest, in milliseconds.
Numbers episodesOf(const StoragePeriod& period) {
    return {period.episodes, period.episodeSumMs, period.counters.avrHighStorageLatencyDuration,
            period.counters.maxHighStorageLatencyDuration};
}

Numbers limitsOf(const StorageLimits& limits) {
    Numbers all{limits.threshold};
    all.insert(all.end(), std::begin(limits.bounds), std::end(limits.bounds));
    return all;
}

// A set of counters whose clock and limits the test sets.
class StorageLatencyTest : public testing::Test {
protected:
    StorageLimits limits{100, {10, 20, 30, 40}}; // microseconds
    std::atomic<u64> nowNs{1'000 * ms};
    StorageLatency latency{[this] { return limits; }, [this] { return nowNs.load(); }};
};

TEST_F(StorageLatencyTest, AClassHoldsWhatTookUpToItsBound) {
    for (const u64 latencyNs :
         {0 * us, 10 * us, 10 * us + 1, 20 * us, 30 * us, 40 * us, 40 * us + 1, ~u64{0}}) {
        latency.countIo(latencyNs);
    }
    EXPECT_EQ(classesOf(latency.closePeriod()), (Numbers{2, 2, 1, 1, 2}));
    EXPECT_EQ(classesOf(latency.closePeriod()), (Numbers{0, 0, 0, 0, 0}));
}

TEST_F(StorageLatencyTest, AFailedIoIsInNoClass) {
    latency.countIo(5 * us);
    latency.countFailedIo(50 * us);
    std::thread([&] { latency.countFailedIo(1 * us); }).join();
    const StoragePeriod period = latency.closePeriod();
    EXPECT_EQ(classesOf(period), (Numbers{1, 0, 0, 0, 0}));
    EXPECT_EQ(period.failedIos, 2U);
    EXPECT_EQ(period.maxUs, 5U);
    EXPECT_EQ(latency.closePeriod().failedIos, 0U);
}

TEST_F(StorageLatencyTest, APeriodHasTheLimitsThatItBeganWith) {
    const StorageLimits narrow = limits;
    const StorageLimits wide{7, {1'000, 2'000, 3'000, 4'000}};
    for (const auto& [next, inForce, countedIn] :
         {std::tuple(wide, narrow, 2), {narrow, wide, 0}, {wide, narrow, 2}}) {
        limits = next;
        latency.countIo(25 * us);
        nowNs += 2 * ms - 1;
        const StoragePeriod period = latency.closePeriod();
        EXPECT_EQ(period.counters.storageLatency[countedIn], 1U);
        EXPECT_EQ(period.counters.latencyThreshold, inForce.threshold);
        EXPECT_EQ(limitsOf(period.limits), limitsOf(inForce));
        EXPECT_EQ(limitsOf(latency.closedPeriod().limits), limitsOf(inForce));
        EXPECT_EQ(period.periodMs, 1U);
    }
}

TEST_F(StorageLatencyTest, TheLiveLimitsAreTheTunables) {
    DynamicTweaks tweaks;
    const Installed<DynamicTweaks, DynamicTweaks> installed(tweaks);
    EXPECT_EQ(limitsOf(liveStorageLimits()), (Numbers{50'000, 1'000, 5'000, 20'000, 100'000}));
}

// Each row is told in milliseconds: completions as "slow|fast handed-over completed", readings as
// "read oldest-in-flight (0: none) now". Its answer: of each reading the episodes, their sum and
// the longest one.
TEST(LatencyEpisodesTest, AnEpisodeIsTheTimeInWhichStorageWasSlow) {
    const char* const rows[][2] = {
        {"fast 1 2 read 0 100", "0:0:0 "},
        {"slow 10 30 fast 31 40 read 0 100", "1:30:30 "},
        // An I/O that was handed over before a slow one ends nothing.
        {"slow 10 30 fast 10 35 fast 11 40 read 0 100", "1:30:30 "},
        {"slow 10 30 slow 25 50 fast 20 51 fast 26 60 read 0 99", "1:50:50 "},
        // An earlier hand-over that is known later moves the beginning.
        {"slow 20 30 slow 5 35 fast 36 40 read 0 99", "1:35:35 "},
        // Never before the end of the one before it.
        {"slow 10 30 fast 31 40 slow 20 60 fast 61 65 read 0 99", "2:55:30 "},
        // An idle hour is no stall.
        {"slow 10 30 slow 12 45 read 0 3600000 read 0 7200000", "1:35:35 0:0:0 "},
        // A stall shows in each period while it lasts, and is not counted twice.
        {"read 10 100 read 10 200 slow 10 250 fast 251 260 read 0 300",
         "1:90:90 1:100:100 1:60:60 "},
        {"read 10 100 read 10 100 slow 10 130 read 0 200", "1:90:90 0:0:0 1:30:30 "},
        {"read 10 100 fast 10 101 read 0 200", "1:90:90 0:0:0 "},
        // One I/O hangs while others are fast.
        {"read 10 100 fast 101 105 fast 106 107 read 10 200", "1:90:90 2:100:95 "},
        // Known only when it is over, it counts whole.
        {"read 0 100 slow 50 150 fast 151 160 read 0 200", "0:0:0 1:110:110 "}};
    for (const auto& [steps, expected] : rows) {
        LatencyEpisodes episodes;
        std::ostringstream answer;
        std::istringstream in(steps);
        std::string what;
        for (u64 start = 0, now = 0; in >> what >> start >> now;) {
            if (what != "read") {
                episodes.completed(what == "slow", start, now);
                continue;
            }
            const auto oldest = start == 0 ? std::nullopt : std::optional(start);
            const LatencyEpisodes::Summary got = episodes.closePeriod(oldest, now);
            answer << got.episodes << ":" << got.sumNs << ":" << got.longestNs << " ";
        }
        EXPECT_EQ(answer.str(), expected) << steps;
    }
}

TEST_F(StorageLatencyTest, AnEpisodeIsOfTheIosThatReachTheThreshold) {
    latency.countIo(100 * us - 1);
    nowNs += 10 * ms;
    latency.countFailedIo(4 * ms); // a stall that ends in an error: from 6 ms on
    nowNs += 11 * ms;
    latency.countIo(12 * ms); // slow as well
    nowNs += 5 * ms;
    latency.countIo(20 * us); // ends it at 26 ms
    nowNs += 40 * ms;
    latency.countIo(30 * ms);
    nowNs += 9 * ms + 999 * us;
    latency.countFailedIo(99 * us);
    nowNs += 1 * ms;
    latency.countIo(100 * us);
    EXPECT_EQ(episodesOf(latency.closePeriod()), (Numbers{3, 60, 20, 39}));
    latency.countIo(u64{1} << 62U); // longer than the clock has run
    nowNs += 5 * ms;
    latency.countIo(0);
    EXPECT_EQ(episodesOf(latency.closePeriod()), (Numbers{1, 5, 5, 5}));
}

TEST_F(StorageLatencyTest, AnIoInFlightIsSlowOnceItIsAsOldAsTheThreshold) {
    const InFlightIo idle(latency, 0);
    auto old = std::make_unique<InFlightIo>(latency, 1);
    old->setStart(nowNs);
    nowNs += 100 * us - 1;
    EXPECT_EQ(episodesOf(latency.closePeriod()), (Numbers{0, 0, 0, 0}));
    nowNs += 1;
    EXPECT_EQ(episodesOf(latency.closePeriod()), (Numbers{1, 0, 0, 0}));
    nowNs += 1'000 * ms;
    EXPECT_EQ(episodesOf(latency.closePeriod()), (Numbers{1, 1'000, 1'000, 1'000}));
    old.reset();
    nowNs += 1'000 * ms;
    EXPECT_EQ(episodesOf(latency.closePeriod()), (Numbers{0, 0, 0, 0}));
}

TEST_F(StorageLatencyTest, TheOldestIoInFlightIsKnown) {
    InFlightIos& inFlight = latency.inFlight();
    const auto make = [&](u64 start) { return std::make_unique<InFlightIo>(latency, start); };
    auto first = make(5), second = make(3), third = make(9);
    EXPECT_EQ(inFlight.oldestStartNs(), 3U);
    second.reset();
    EXPECT_EQ(inFlight.oldestStartNs(), 5U);
    first.reset();
    EXPECT_EQ(inFlight.oldestStartNs(), 9U);
    auto last = make(7);
    EXPECT_EQ(inFlight.oldestStartNs(), 7U);
    std::thread([&] { last.reset(); }).join();
    EXPECT_EQ(inFlight.oldestStartNs(), 9U);
    third.reset();
    EXPECT_EQ(inFlight.oldestStartNs(), std::nullopt);
}

TEST(LatencyBucketsTest, BucketsJoin) {
    for (std::size_t bucket = 0; bucket < LatencyBuckets::count; ++bucket) {
        const u64 shortest = LatencyBuckets::shortest(bucket);
        const u64 longest = LatencyBuckets::longest(bucket);
        const bool isLast = bucket + 1 == LatencyBuckets::count;
        ASSERT_EQ(LatencyBuckets::of(shortest), bucket);
        ASSERT_EQ(LatencyBuckets::of(longest), bucket);
        ASSERT_EQ(LatencyBuckets::of(longest + 1), isLast ? 0 : bucket + 1);
        const u64 width = isLast ? shortest / 31 : longest - shortest + 1;
        ASSERT_EQ(LatencyBuckets::middle(bucket), shortest + (width - 1) / 2);
        ASSERT_LE((width - 1) * 16, shortest);
    }
    EXPECT_EQ(LatencyBuckets::shortest(LatencyBuckets::count - 1), u64{31} << 39U);
}

TEST_F(StorageLatencyTest, APercentileIsOfTheNearestRank) {
    const Numbers latenciesUs{100, 300, 1'000, 3'000, 10'000};
    const Numbers shownUs{101, 304, 1'000, 2'950, 10'000}; // the middles of their buckets
    for (const auto& [longest, ranks] :
         {std::pair(1, Numbers{0, 1, 2, 3, 4}), {2, {1, 2, 3, 4, 4}}}) {
        const int counts[] = {500, 400, 90, 9, longest};
        Numbers expected;
        for (std::size_t i = 0; i < latenciesUs.size(); ++i) {
            for (int io = 0; io < counts[i]; ++io) {
                latency.countIo(latenciesUs[i] * us);
            }
            expected.push_back(shownUs[ranks[i]]);
        }
        EXPECT_EQ(percentilesOf(latency.closePeriod()), expected);
    }
}

TEST_F(StorageLatencyTest, MicrosecondsRoundUp) {
    constexpr u64 top = ~u32{0};
    for (const auto& [ns, expectedUs] :
         {std::pair(~u64{0}, top), {0, 0}, {1, 1}, {992, 1}, {1'000, 1}, {1'001, 2}}) {
        latency.countIo(ns);
        EXPECT_EQ(percentilesOf(latency.closePeriod()), Numbers(5, expectedUs)) << ns;
    }
    EXPECT_EQ(percentilesOf(latency.closePeriod()), Numbers(5, 0)) << "no I/O";
}

TEST_F(StorageLatencyTest, NothingIsLostBetweenReadingAndCounting) {
    constexpr u64 perThread = 12'000;
    constexpr unsigned int threadCount = ThreadLane::count + 2; // so that some have no lane
    std::atomic<unsigned int> waiting{threadCount};
    const auto count = [&] {
        ThreadLane::mine();
        for (--waiting; waiting > 0;) {
            std::this_thread::yield();
        }
        for (u64 i = 0; i < perThread; i += 3) {
            latency.countIo(i % 50 * us);
            latency.countIo(200 * us);
            latency.countFailedIo(us);
        }
    };
    std::vector<std::future<void>> threads(threadCount);
    for (auto& thread : threads) {
        thread = std::async(std::launch::async, count);
    }
    u64 total = 0;
    u64 failed = 0;
    for (int i = 0; i <= 1'000; ++i) {
        if (i == 1'000) {
            threads.clear();
        }
        limits.threshold = i % 2 == 0 ? 100 : 1'000;
        const StoragePeriod period = latency.closePeriod();
        const Numbers classes = classesOf(period);
        total += std::accumulate(classes.begin(), classes.end(), u64{0});
        failed += period.failedIos;
        EXPECT_TRUE(period.maxUs <= 200) << period.maxUs;
    }
    EXPECT_EQ(total, threadCount * perThread / 3 * 2);
    EXPECT_EQ(failed, threadCount * perThread / 3);
}

class AioTest : public testing::Test {
protected:
    RecordingLog log;
    AIO aio;
    Installed<AIO, AIO> installed{aio};
    StorageAnalyticsCounters counters;
};

TEST_F(AioTest, EveryWayOfCountingReachesTheProcess) {
    StorageLatency writes;
    aio.countIo(~u64{0});
    aio.countFailedIo(1);
    AIO::Measure{}; // NOLINT(bugprone-unused-raii)
    for (const bool fails : {true, false, false}) {
        AIO::Measure io(writes);
        if (fails) {
            io.failed();
        }
    }
    EXPECT_EQ(writes.closePeriod().failedIos, 1U);
    EXPECT_EQ(writes.closedPeriod().counters.storageLatency[0], 2U);
    aio.mabeStorageLatencyAnalytics(counters);
    EXPECT_EQ(aio.latency().closedPeriod().failedIos, 2U);
    EXPECT_EQ(counters.storageLatency[0] + 10 * counters.storageLatency[4], 13U);
}

TEST_F(AioTest, AMeasureIsInFlightWhileItLasts) {
    StorageLatency reads([] { return StorageLimits{1, {1, 2, 3, 4}}; });
    const u64 startNs = monotonicNs();
    {
        const AIO::Measure io(reads);
        while (monotonicNs() < startNs + 2 * ms) {
            std::this_thread::yield();
        }
        EXPECT_GE(reads.closePeriod().episodeSumMs, 1U);
        EXPECT_TRUE(aio.latency().hasCounted());
    }
    EXPECT_GE(reads.closePeriod().maxUs, 1'900U);
    EXPECT_LE(reads.closedPeriod().maxUs, (monotonicNs() - startNs) / us + 1);
    EXPECT_EQ(reads.inFlight().oldestStartNs(), std::nullopt);
}

TEST_F(AioTest, AFirstReportWithoutAnyIoIsWarnedOf) {
    const std::function<void(AIO&)> ways[] = {[](AIO&) {}, [](AIO& fresh) { fresh.countIo(1); },
                                              [](AIO& fresh) { fresh.countFailedIo(1); }};
    for (const auto& count : ways) {
        AIO fresh;
        count(fresh);
        fresh.mabeStorageLatencyAnalytics(counters);
        fresh.mabeStorageLatencyAnalytics(counters);
    }
    EXPECT_EQ(log.texts(WarnLevel),
              std::vector<std::string>{
                  "no I/O was ever counted: code that makes I/Os counts them by AIO::countIo(), "
                  "AIO::countFailedIo() or an AIO::Measure\n"});
}

} // namespace
