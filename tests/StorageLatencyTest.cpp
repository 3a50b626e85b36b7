#include "host/services/StorageLatency.h"

#include "host/testing/Installed.h"
#include "host/testing/LogText.h"
#include "tests/support/Together.h"

#include <fmt/format.h>
#include <pthread.h>

namespace {

constexpr u64 us = 1'000;
constexpr u64 ms = 1'000'000;

// Without the groups that are all zero, and the limits if they are the usual ones. Of the episodes
// their number, and in milliseconds their sum, the mean and the longest.
std::string toText(const StoragePeriod& period) {
    const StorageAnalyticsCounters& counters = period.counters;
    const std::string text = fmt::format(
        "classes {} us {} {} {} {} {} failed {} episodes {} {} {} {} ms {} limits {} {}",
        fmt::join(counters.storageLatency, " "), period.p50Us, period.p90Us, period.p99Us,
        period.p999Us, period.maxUs, period.failedIos, period.episodes, period.episodeSumMs,
        counters.avrHighStorageLatencyDuration, counters.maxHighStorageLatencyDuration,
        period.periodMs, counters.latencyThreshold, fmt::join(period.limits.bounds, " "));
    return std::regex_replace(text, std::regex("[a-z]+( 0)+ (?=[a-z])|limits 100 .*"), "");
}

u64 goodIos(const StorageAnalyticsCounters& counters) {
    const u32(&ios)[5] = counters.storageLatency;
    return std::accumulate(std::begin(ios), std::end(ios), u64{0});
}

class StorageLatencyTest : public testing::Test {
protected:
    void io(u64 latencyNs, int count = 1) {
        for (; count > 0; --count) {
            latency.countIo(latencyNs);
        }
    }
    std::string closed() { return toText(latency.closePeriod()); }

    StorageLimits limits{100, {10, 20, 30, 40}};
    u64 nowNs = 1'000 * ms;
    StorageLatency latency{[this] { return limits; }, [this] { return nowNs; }};
};

// They are told as the middles of their buckets.
TEST_F(StorageLatencyTest, APercentileIsOfTheNearestRank) {
    for (const auto& [longest, told] :
         {std::pair(1, "classes 0 0 0 0 1000 us 101 304 1000 2950 10000 episodes 1 10 10 10 "),
          {2, "classes 0 0 0 0 1001 us 304 1000 2950 10000 10000 "}}) {
        io(99'999, 500), io(300 * us, 400), io(1 * ms, 90), io(3 * ms, 9), io(10 * ms, longest);
        EXPECT_EQ(closed(), told);
    }
}

TEST_F(StorageLatencyTest, APeriodHasTheLimitsThatItBeganWith) {
    const StorageLimits narrow = std::exchange(limits, {7, {1'000, 2'000, 3'000, 4'000}});
    io(25 * us);
    nowNs += 2 * ms - 1;
    EXPECT_EQ(closed(), "classes 0 0 1 0 0 us 25 25 25 25 25 ms 1 ");
    limits = narrow;
    io(6 * us), io(2 * ms);
    EXPECT_EQ(closed(), "classes 1 1 0 0 0 us 7 1999 1999 1999 2000 episodes 1 2 2 2 limits 7 1000 "
                        "2000 3000 4000");
}

TEST_F(StorageLatencyTest, AnEpisodeIsOfTheIosThatReachTheThreshold) {
    const std::tuple<u64, bool, u64> ios[] = {
        // the time passing before, whether it fails, its latency: microseconds
        {0, false, 99},          {10'000, true, 4'000}, // from 6 ms on
        {11'000, false, 12'000}, {5'000, false, 20},    // ends it at 26 ms
        {40'000, false, 30'000}, {9'999, true, 99},     {1'000, false, 100}};
    for (const auto& [passingUs, fails, latencyUs] : ios) {
        nowNs += passingUs * us;
        fails ? latency.countFailedIo(latencyUs * us) : latency.countIo(latencyUs * us);
    }
    EXPECT_EQ(closed(),
              "classes 0 1 0 0 4 us 101 29885 29885 29885 30000 failed 2 episodes 3 60 20 "
              "39 ms 76 ");
    latency.countIo(~u64{0}); // longer than the clock has run
    nowNs += 5 * ms;
    io(0);
    EXPECT_EQ(closed(), "classes 1 0 0 0 1 us 0 4294967295 4294967295 4294967295 4294967295 "
                        "episodes 1 5 5 5 ms 5 ");
}

TEST_F(StorageLatencyTest, AnIoInFlightIsSlowOnceItIsAsOldAsTheThreshold) {
    const InFlightIo idle(latency, 0);
    InFlightIo old(latency, 1);
    old.setStart(nowNs);
    for (const auto& [passingNs, told] : {std::pair(100 * us - 1, ""),
                                          {1, "episodes 1 0 0 0 "},
                                          {1'000 * ms, "episodes 1 1000 1000 1000 ms 1000 "}}) {
        nowNs += passingNs;
        EXPECT_EQ(closed(), told);
    }
}

// Each row is told in milliseconds: completions as "slow|fast handed-over completed", readings as
// "read oldest-in-flight (0: none) now". Its answer: of each reading the episodes, their sum and
// the longest one.
TEST(LatencyEpisodesTest, AnEpisodeIsTheTimeInWhichStorageWasSlow) {
    const char* const rows[][2] = {
        // An I/O that was handed over before a slow one ends nothing.
        {"slow 10 30 fast 10 35 fast 11 40 read 0 100", "1:30:30 "},
        {"slow 10 30 slow 25 40 slow 20 50 fast 22 51 fast 26 60 read 0 99", "1:50:50 "},
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

TEST_F(StorageLatencyTest, TheOldestIoInFlightIsKnown) {
    std::map<int, std::unique_ptr<InFlightIo>> ios;
    // The start of an I/O, or with a minus that of one that ends on another thread.
    for (const auto& [start, oldest] :
         {std::pair(5, 5U), {3, 3U}, {9, 3U}, {-3, 5U}, {-5, 9U}, {7, 7U}, {-7, 9U}, {-9, 0U}}) {
        if (start > 0) {
            ios[start] = std::make_unique<InFlightIo>(latency, start);
        } else {
            std::thread([&, ended = -start] { ios.erase(ended); }).join();
        }
        EXPECT_EQ(latency.inFlight().oldestStartNs().value_or(0), oldest) << start;
    }
}

TEST(LatencyBucketsTest, BucketsJoin) {
    for (std::size_t bucket = 0; bucket < LatencyBuckets::count; ++bucket) {
        const u64 longest = LatencyBuckets::longest(bucket);
        ASSERT_EQ(LatencyBuckets::of(LatencyBuckets::shortest(bucket)), bucket);
        ASSERT_EQ(LatencyBuckets::of(longest), bucket);
        ASSERT_EQ(LatencyBuckets::of(longest + 1), (bucket + 1) % LatencyBuckets::count);
    }
}

TEST_F(StorageLatencyTest, NothingIsLostBetweenReadingAndCounting) {
    constexpr u64 perThread = 32'000;
    constexpr unsigned int threadCount = ThreadLane::count + 8; // so that some have no lane
    std::atomic<unsigned int> ready{0};
    auto threads = startTogether(threadCount, [&] {
        ThreadLane::mine();
        for (++ready; ready < threadCount;) { // each has what it gets before one gives it back
            std::this_thread::yield();
        }
        for (u64 i = 0; i < perThread; ++i) {
            latency.countIo(100 * us);
            latency.countIo(200 * us);
            latency.countFailedIo(us);
        }
    });
    u64 total = 0;
    for (int i = 0; i <= 1'000; ++i) {
        i == 1'000 ? threads.clear() : void();
        const u32 unit = i % 3 == 0 ? 1'000 : 10;
        limits = {i < 100 ? 100U : 1'000U, {unit, 2 * unit, 3 * unit, 4 * unit}}; // first all slow
        const StoragePeriod period = latency.closePeriod();
        const u32(&ios)[5] = period.counters.storageLatency;
        total += goodIos(period.counters) + period.failedIos;
        EXPECT_LE(period.maxUs, 200U);
        EXPECT_EQ(ios[1] + ios[2] + ios[3], 0U) << "a mixture of two limits";
    }
    EXPECT_EQ(total, 3 * threadCount * perThread);
}

TEST(ThreadLaneTest, IsOneThreadsUntilItEnds) {
    const unsigned int mine = ThreadLane::mine();
    pthread_key_t key{}; // a thread that sets it takes a lane again once it has given one back
    const auto takeAgain = [](void*) {
        const unsigned int again = ThreadLane::mine();
        EXPECT_NE(std::async(std::launch::async, ThreadLane::mine).get(), again);
    };
    ASSERT_EQ(pthread_key_create(&key, takeAgain), 0);
    for (unsigned int i = 0; i < 2 * ThreadLane::count; ++i) {
        std::thread([&] {
            EXPECT_LT(ThreadLane::mine(), ThreadLane::count);
            EXPECT_NE(ThreadLane::mine(), mine);
            EXPECT_EQ(pthread_setspecific(key, &key), 0);
        }).join();
    }
    EXPECT_EQ(ThreadLane::mine(), mine);
    pthread_key_delete(key);
}

TEST(AioTest, EveryWayOfCountingReachesTheProcess) {
    const RecordingLog log;
    AIO aio, unused, failing;
    const Installed<AIO, AIO> installed(aio);
    StorageLatency writes;
    const u64 startNs = monotonicNs();
    for (const bool fails : {false, true, false}) {
        AIO::Measure io(writes);
        for (StorageLatency* const each : {&aio.latency(), &writes}) {
            EXPECT_GE(each->inFlight().oldestStartNs().value_or(0), startNs);
            EXPECT_TRUE(each->hasCounted());
        }
        while (monotonicNs() < startNs + 2 * ms) {
        }
        if (fails) {
            io.failed();
        }
    }
    EXPECT_EQ(writes.inFlight().oldestStartNs(), std::nullopt);
    const StoragePeriod ofWrites = writes.closePeriod();
    EXPECT_EQ(goodIos(ofWrites.counters), 2U);
    EXPECT_EQ(ofWrites.failedIos, 1U);
    EXPECT_GE(ofWrites.maxUs, 1'900U);
    EXPECT_LE(ofWrites.maxUs, (monotonicNs() - startNs) / us + 1);
    aio.countIo(~u64{0});
    aio.countFailedIo(1);
    failing.countFailedIo(1);
    AIO::Measure{}; // NOLINT(bugprone-unused-raii)
    StorageAnalyticsCounters counters;
    for (AIO* const each : {&unused, &unused, &failing, &aio}) {
        each->mabeStorageLatencyAnalytics(counters);
    }
    EXPECT_EQ(goodIos(counters), 4U);
    EXPECT_EQ(aio.latency().closedPeriod().failedIos, 2U);
    EXPECT_EQ(toBriefText(log),
              "common warn mabeStorageLatencyAnalytics \"no I/O was ever counted: code that makes "
              "I/Os counts them by AIO::countIo(), AIO::countFailedIo() or an AIO::Measure\\n\"\n");
}

} // namespace
