#include "host/services/StorageLatency.h"

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Singleton.h"
#include "host/testing/Installed.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Together.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cmath>
#include <map>
#include <numeric>
#include <sstream>

namespace {

constexpr u64 us = 1'000;
constexpr u64 ms = 1'000'000;

// The figures of a period but for those groups that are all zero. Its limits, if they are not
// usual.
std::string toText(const StoragePeriod& period) {
    const StorageAnalyticsCounters& counters = period.counters;
    const u32(&ios)[5] = counters.storageLatency;
    const u32(&bounds)[4] = period.limits.bounds;
    std::string text;
    const auto add = [&](const char* name, const std::vector<u64>& figures) {
        if (std::accumulate(figures.begin(), figures.end(), u64{0}) != 0) {
            text += name;
            for (const u64 figure : figures) {
                text += std::to_string(figure) + " ";
            }
        }
    };
    add("classes ", {std::begin(ios), std::end(ios)});
    add("us ", {period.p50Us, period.p90Us, period.p99Us, period.p999Us, period.maxUs});
    add("failed ", {period.failedIos});
    add("episodes ", {period.episodes, period.episodeSumMs, counters.avrHighStorageLatencyDuration,
                      counters.maxHighStorageLatencyDuration}); // the sum, mean, longest in ms
    add("ms ", {period.periodMs});
    if (period.limits.threshold != 100) {
        add("limits ", {counters.latencyThreshold, bounds[0], bounds[1], bounds[2], bounds[3]});
    }
    return text;
}

class StorageLatencyTest : public testing::Test {
protected:
    // Does what the words say, with numbers in microseconds, and tells each period that is closed:
    // so many I/Os of a latency, a failed one, time that passes, other limits of the next period,
    // an I/O in flight that starts now, its end.
    std::string told(const std::string& steps) {
        std::istringstream in(steps);
        std::string word, text;
        double number = 0;
        const auto ns = [&] { return in >> number, static_cast<u64>(std::llround(number * 1000)); };
        while (in >> word) {
            if (word == "close") {
                const StoragePeriod period = latency.closePeriod();
                text += toText(period) + ";";
                EXPECT_EQ(toText(latency.closedPeriod()), toText(period));
            } else if (word == "fail") {
                latency.countFailedIo(ns());
            } else if (word == "wait") {
                nowNs += ns();
            } else if (word == "wide") {
                limits = {7, {1'000, 2'000, 3'000, 4'000}};
            } else if (word == "narrow") {
                limits = {100, {10, 20, 30, 40}};
            } else if (word == "start") {
                inFlight.setStart(nowNs);
            } else if (word == "end") {
                inFlight.setStart(0);
            } else {
                const u64 latencyNs = ns();
                for (int count = std::stoi(word); count > 0; --count) {
                    latency.countIo(latencyNs);
                }
            }
        }
        return text;
    }

    StorageLimits limits{100, {10, 20, 30, 40}};
    u64 nowNs = 1'000 * ms;
    StorageLatency latency{[this] { return limits; }, [this] { return nowNs; }};
    InFlightIo inFlight{latency, 0};
};

TEST_F(StorageLatencyTest, APeriodTellsWhatCompletedInIt) {
    const std::pair<const char*, const char*> rows[] = {
        {"close", ";"},
        {"1 0 close", "classes 1 0 0 0 0 ;"},
        {"1 0.001 close 1 0.992 close 1 1 close", // rounded up
         "classes 1 0 0 0 0 us 1 1 1 1 1 ;classes 1 0 0 0 0 us 1 1 1 1 1 ;"
         "classes 1 0 0 0 0 us 1 1 1 1 1 ;"},
        {"1 1.001 close", "classes 1 0 0 0 0 us 2 2 2 2 2 ;"},
        // A bound is of the class below it.
        {"1 10 2 10.001 1 20 4 30 5 40 6 40.001 close", "classes 1 3 4 5 6 us 40 40 40 40 41 ;"},
        // The middles of the buckets of 100, 300, 1,000 and 3,000 us, by nearest rank.
        {"500 99.999 400 300 90 1000 9 3000 1 10000 close",
         "classes 0 0 0 0 1000 us 101 304 1000 2950 10000 episodes 1 10 10 10 ;"},
        {"500 99.999 400 300 90 1000 9 3000 2 10000 close",
         "classes 0 0 0 0 1001 us 304 1000 2950 10000 10000 ;"},
        {"1 5 fail 50 fail 1 close close", "classes 1 0 0 0 0 us 5 5 5 5 5 failed 2 ;;"},
        // The limits are those that the period began with.
        {"wide 1 25 wait 1999.999 close narrow 1 6 1 2000 close 1 25 close",
         "classes 0 0 1 0 0 us 25 25 25 25 25 ms 1 ;"
         "classes 1 1 0 0 0 us 7 1999 1999 1999 2000 episodes 1 1 1 1 limits 7 1000 2000 3000 4000 "
         ";"
         "classes 0 0 1 0 0 us 25 25 25 25 25 ;"},
        // Episodes from 6 ms on, of an I/O that fails, to 26 ms; of two more slow ones.
        {"1 99.999 wait 10000 fail 4000 wait 11000 1 12000 wait 5000 1 20 wait 40000 1 30000 "
         "wait 9999 fail 99 wait 1000 1 100 close",
         "classes 0 1 0 0 4 us 101 29885 29885 29885 30000 failed 2 episodes 3 60 20 39 ms 76 ;"},
        // Longer than the clock has run.
        {"1 4000000000000000 wait 5000 1 0 close",
         "classes 1 0 0 0 1 us 0 4294967295 4294967295 4294967295 4294967295 episodes 1 5 5 5 "
         "ms 5 ;"},
        // In flight for less than the threshold, for as long, and on and on.
        {"start wait 99.999 close wait 0.001 close wait 1000000 close end wait 1000000 close",
         ";episodes 1 0 0 0 ;episodes 1 1000 1000 1000 ms 1000 ;ms 1000 ;"}};
    for (const auto& [steps, expected] : rows) {
        EXPECT_EQ(told(steps), expected) << steps;
    }
}

TEST_F(StorageLatencyTest, TheLiveLimitsAreTheTunables) {
    DynamicTweaks tweaks;
    const Installed<DynamicTweaks, DynamicTweaks> installed(tweaks);
    const StorageLimits live = liveStorageLimits();
    EXPECT_EQ(live.threshold, 50'000U);
    EXPECT_THAT(live.bounds, testing::ElementsAre(1'000, 5'000, 20'000, 100'000));
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

TEST_F(StorageLatencyTest, NothingIsLostBetweenReadingAndCounting) {
    constexpr u64 perThread = 4'000;
    constexpr unsigned int threadCount = ThreadLane::count + 2; // so that some have no lane
    auto threads = startTogether(threadCount, [&] {
        for (u64 i = 0; i < perThread; ++i) {
            latency.countIo(i % 50 * us);
            latency.countIo(200 * us);
            latency.countFailedIo(us);
        }
    });
    u64 total = 0;
    u64 failed = 0;
    for (int i = 0; i <= 1'000; ++i) {
        if (i == 1'000) {
            threads.clear();
        }
        limits.threshold = i % 2 == 0 ? 100 : 1'000;
        const StoragePeriod period = latency.closePeriod();
        const u32(&ios)[5] = period.counters.storageLatency;
        total += std::accumulate(std::begin(ios), std::end(ios), u64{0});
        failed += period.failedIos;
        EXPECT_LE(period.maxUs, 200U);
    }
    EXPECT_EQ(total, 2 * threadCount * perThread);
    EXPECT_EQ(failed, threadCount * perThread);
}

TEST(ThreadLaneTest, IsOneThreadsUntilItEnds) {
    const unsigned int mine = ThreadLane::mine();
    EXPECT_LT(mine, ThreadLane::count);
    for (unsigned int i = 0; i < 2 * ThreadLane::count; ++i) {
        const unsigned int others = std::async(std::launch::async, ThreadLane::mine).get();
        EXPECT_LT(others, ThreadLane::count);
        EXPECT_NE(others, mine);
    }
    EXPECT_EQ(ThreadLane::mine(), mine);
}

TEST(ThreadLaneTest, IsGivenBackThoughItWasTakenInAThreadsLastDestructors) {
    pthread_key_t key{};
    ASSERT_EQ(pthread_key_create(&key, [](void*) { ThreadLane::mine(); }), 0);
    for (unsigned int i = 0; i < 2 * ThreadLane::count; ++i) {
        std::thread([&] { EXPECT_EQ(pthread_setspecific(key, &key), 0); }).join();
    }
    EXPECT_LT(std::async(std::launch::async, ThreadLane::mine).get(), ThreadLane::count);
    pthread_key_delete(key);
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
    AIO unused, failing;
    failing.countFailedIo(1);
    aio.countIo(1);
    for (AIO* const each : {&unused, &unused, &failing, &aio}) {
        each->mabeStorageLatencyAnalytics(counters);
    }
    EXPECT_EQ(log.texts(WarnLevel),
              std::vector<std::string>{
                  "no I/O was ever counted: code that makes I/Os counts them by AIO::countIo(), "
                  "AIO::countFailedIo() or an AIO::Measure\n"});
}

} // namespace
