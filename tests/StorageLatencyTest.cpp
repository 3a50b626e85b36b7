#include "host/services/StorageLatency.h"

#include "common/infra/Singleton.h"
#include "host/testing/Installed.h"
#include "host/testing/RecordingLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr u64 us = 1'000;
constexpr u64 ms = 1'000'000;

using Classes = std::vector<u32>;

Classes classesOf(const StoragePeriod& period) {
    const u32(&counts)[5] = period.counters.storageLatency;
    return {std::begin(counts), std::end(counts)};
}

// A set of counters whose clock and limits the test sets. Its threshold is 100 us.
class StorageLatencyTest : public testing::Test {
protected:
    std::vector<u32> percentilesUs() {
        const StoragePeriod period = latency.closePeriod();
        return {period.p50Us, period.p90Us, period.p99Us, period.p999Us, period.maxUs};
    }

    StorageLimits limits{100, {10, 20, 30, 40}}; // microseconds
    std::atomic<u64> nowNs{1'000 * ms};
    StorageLatency latency{[this] { return limits; }, [this] { return nowNs.load(); }};
};

TEST_F(StorageLatencyTest, AClassHoldsWhatTookUpToItsBound) {
    for (const u64 latencyNs :
         {0 * us, 10 * us, 10 * us + 1, 20 * us, 30 * us, 40 * us, 40 * us + 1, ~u64{0}}) {
        latency.countIo(latencyNs);
    }
    EXPECT_EQ(classesOf(latency.closePeriod()), (Classes{2, 2, 1, 1, 2}));
    EXPECT_EQ(classesOf(latency.closePeriod()), (Classes{0, 0, 0, 0, 0}));
}

TEST_F(StorageLatencyTest, AFailedIoIsInNoClassAndNoPercentile) {
    latency.countIo(5 * us);
    latency.countFailedIo(50 * us);
    latency.countFailedIo(1 * us);
    const StoragePeriod period = latency.closePeriod();
    EXPECT_EQ(classesOf(period), (Classes{1, 0, 0, 0, 0}));
    EXPECT_EQ(period.failedIos, 2U);
    EXPECT_EQ(period.maxUs, 5U);
    EXPECT_EQ(latency.closePeriod().failedIos, 0U);
}

TEST_F(StorageLatencyTest, APeriodHasTheLimitsThatItBeganWith) {
    const StorageLimits narrow = limits;
    const StorageLimits wide{7, {1'000, 2'000, 3'000, 4'000}};
    for (const auto& [next, inForce, countedIn] :
         {std::tuple(wide, narrow, 2), {narrow, wide, 0}, {narrow, narrow, 2}}) {
        limits = next;
        latency.countIo(25 * us);
        nowNs += 1'999'999;
        const StoragePeriod period = latency.closePeriod();
        EXPECT_EQ(period.counters.storageLatency[countedIn], 1U);
        EXPECT_EQ(period.counters.latencyThreshold, inForce.threshold);
        EXPECT_EQ(period.limits.bounds[3], inForce.bounds[3]);
        EXPECT_EQ(latency.closedPeriod().limits.threshold, inForce.threshold);
        EXPECT_EQ(period.periodMs + latency.closedPeriod().periodMs, 2U);
        nowNs += 1; // of each period 2 ms less a nanosecond, and then one more
        latency.closePeriod();
    }
}

// Each row is told in milliseconds: completions as "slow|fast handed-over completed", readings as
// "read oldest-in-flight (0: none) now". Its answer: of each reading the episodes, their sum and
// the longest one.
TEST(LatencyEpisodesTest, AnEpisodeIsTheTimeInWhichStorageWasSlow) {
    struct Step {
        enum { Fast, Slow, Read } what;
        u64 startMs, nowMs;
    };
    constexpr auto fast = Step::Fast, slow = Step::Slow, read = Step::Read;
    struct Row {
        const char* name;
        std::vector<Step> steps;
        std::string answer;
    };
    for (const Row& row : std::vector<Row>{
             {"nothing slow", {{fast, 1, 2}, {read, 0, 100}}, "0:0:0 "},
             {"from the hand-over to the first fast completion",
              {{slow, 10, 30}, {fast, 31, 40}, {read, 0, 100}},
              "1:30:30 "},
             {"an I/O that was handed over before the slow one ends nothing",
              {{slow, 10, 30}, {fast, 10, 35}, {fast, 11, 40}, {read, 0, 100}},
              "1:30:30 "},
             {"the latest of the slow hand-overs counts",
              {{slow, 10, 30}, {slow, 25, 50}, {fast, 20, 51}, {fast, 26, 60}, {read, 0, 99}},
              "1:50:50 "},
             {"an earlier hand-over that is known later moves the beginning",
              {{slow, 20, 30}, {slow, 5, 35}, {fast, 36, 40}, {read, 0, 99}},
              "1:35:35 "},
             {"never before the end of the one before it",
              {{slow, 10, 30}, {fast, 31, 40}, {slow, 20, 60}, {fast, 61, 65}, {read, 0, 99}},
              "2:55:30 "},
             {"an idle hour is no stall",
              {{slow, 10, 30}, {slow, 12, 45}, {read, 0, 3'600'000}, {read, 0, 7'200'000}},
              "1:35:35 0:0:0 "},
             {"a stall shows in each period while it lasts",
              {{read, 10, 100}, {read, 10, 200}, {slow, 10, 250}, {fast, 251, 260}, {read, 0, 300}},
              "1:90:90 1:100:100 1:60:60 "},
             {"what the readings counted is not counted again",
              {{read, 10, 100}, {slow, 10, 130}, {read, 0, 200}},
              "1:90:90 1:30:30 "},
             {"an I/O in flight turns out to be no longer slow",
              {{read, 10, 100}, {fast, 10, 101}, {read, 0, 200}},
              "1:90:90 0:0:0 "},
             {"one I/O hangs while others are fast",
              {{read, 10, 100}, {fast, 101, 105}, {fast, 106, 107}, {read, 10, 200}},
              "1:90:90 2:100:95 "},
             {"known only when it is over, it counts whole",
              {{read, 0, 100}, {slow, 50, 150}, {fast, 151, 160}, {read, 0, 200}},
              "0:0:0 1:110:110 "}}) {
        LatencyEpisodes episodes;
        std::string answer;
        for (const Step& step : row.steps) {
            if (step.what != read) {
                episodes.completed(step.what == slow, step.startMs, step.nowMs);
                continue;
            }
            const auto oldest = step.startMs == 0 ? std::nullopt : std::optional(step.startMs);
            const LatencyEpisodes::Summary got = episodes.closePeriod(oldest, step.nowMs);
            answer += std::to_string(got.episodes) + ":" + std::to_string(got.sumNs) + ":" +
                      std::to_string(got.longestNs) + " ";
        }
        EXPECT_EQ(answer, row.answer) << row.name;
    }
}

TEST_F(StorageLatencyTest, EpisodesAreThoseOfTheIosThatReachTheThreshold) {
    latency.countIo(100 * us - 1);
    nowNs += 10 * ms;
    latency.countFailedIo(4 * ms); // a stall that ends in an error: from 6 ms on
    nowNs += 11 * ms;
    latency.countIo(12 * ms); // slow as well
    nowNs += 5 * ms;
    latency.countFailedIo(20 * us); // ends it at 26 ms
    latency.countIo(100 * us);
    latency.countIo(99 * us);
    nowNs += 9 * ms;
    const StoragePeriod period = latency.closePeriod();
    EXPECT_EQ(period.episodes, 1U);
    EXPECT_EQ(period.episodeSumMs, 20U);
    EXPECT_EQ(period.counters.avrHighStorageLatencyDuration, 20U);
    EXPECT_EQ(period.counters.maxHighStorageLatencyDuration, 20U);
    latency.countIo(u64{1} << 62U); // longer than the record holds: since the clock began
    EXPECT_EQ(latency.closePeriod().counters.maxHighStorageLatencyDuration, 9U);
}

// In flight for 4 s of one-second periods.
TEST_F(StorageLatencyTest, AnIoInFlightIsKnownOnceItIsOlderThanTheThreshold) {
    InFlightIo idle(latency, 0);
    auto recent = std::make_unique<InFlightIo>(latency, nowNs + 999'950'000);
    auto old = std::make_unique<InFlightIo>(latency, nowNs + 1);
    std::vector<u32> longestMs;
    for (int period = 0; period < 4; ++period) {
        nowNs += 1'000 * ms;
        longestMs.push_back(latency.closePeriod().counters.maxHighStorageLatencyDuration);
        recent.reset();
    }
    old->setStart(nowNs + 1);
    EXPECT_EQ(longestMs, (std::vector<u32>{999, 1'000, 1'000, 1'000}));
    nowNs += 100 * us;
    EXPECT_EQ(latency.closePeriod().episodes, 0U) << "99.999 us old";
    nowNs += 1;
    old.reset();
    EXPECT_EQ(latency.closePeriod().episodes, 0U) << "no longer in flight";
}

TEST(LatencyBucketsTest, BucketsJoinAndTheirMiddleIsNear) {
    for (std::size_t bucket = 0; bucket < LatencyBuckets::count; ++bucket) {
        const u64 shortest = LatencyBuckets::shortest(bucket);
        const u64 longest = LatencyBuckets::longest(bucket);
        ASSERT_EQ(LatencyBuckets::of(shortest), bucket);
        ASSERT_EQ(LatencyBuckets::of(longest), bucket);
        ASSERT_EQ(LatencyBuckets::of(longest + 1),
                  bucket + 1 == LatencyBuckets::count ? 0 : bucket + 1);
        const auto middle = static_cast<double>(LatencyBuckets::middle(bucket));
        ASSERT_LE(middle - static_cast<double>(shortest), 0.0313 * static_cast<double>(shortest));
        if (bucket + 1 < LatencyBuckets::count) {
            ASSERT_LE(static_cast<double>(longest) - middle, 0.0313 * static_cast<double>(longest));
        }
    }
    EXPECT_GT(LatencyBuckets::shortest(LatencyBuckets::count - 1), u64{4} * 3600 * 1'000 * ms);
}

TEST_F(StorageLatencyTest, PercentilesAreNearTheExactOnes) {
    using Random = std::mt19937_64;
    const std::vector<std::pair<const char*, std::function<double(Random&)>>> distributions = {
        {"uniform", std::uniform_real_distribution<double>(2e3, 9e6)},
        {"exponential", std::exponential_distribution<double>(1 / 3e5)},
        {"lognormal", std::lognormal_distribution<double>(12, 1.5)},
        {"two disks", [](Random& random) { return random() % 20 == 0 ? 8e6 : 9e4; }},
        {"heavy tail", [](Random& random) {
             return 5e4 / std::pow(std::uniform_real_distribution<double>(1e-6, 1)(random), 0.8);
         }}};
    for (auto [name, draw] : distributions) {
        Random random; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same samples every time
        std::vector<u64> samples(30'001);
        for (u64& sample : samples) {
            sample = static_cast<u64>(draw(random));
            latency.countIo(sample);
        }
        latency.countFailedIo(~u64{0});
        std::sort(samples.begin(), samples.end());
        const std::vector<u32> got = percentilesUs();
        const std::vector<u32> nearest{15'001, 27'001, 29'701, 29'971}; // nearest rank
        for (std::size_t i = 0; i < nearest.size(); ++i) {
            const double exactUs = static_cast<double>(samples[nearest[i] - 1]) / 1e3;
            EXPECT_NEAR(got[i], exactUs, 0.06 * exactUs + 1) << name << " " << i;
            EXPECT_LE(got[i], got.back()) << name;
        }
        EXPECT_EQ(got.back(), (samples.back() + 999) / 1'000) << name;
    }
}

TEST_F(StorageLatencyTest, MicrosecondsRoundUpAndSaturate) {
    using Us = std::vector<u32>;
    constexpr u32 top = ~u32{0};
    const std::vector<std::pair<std::vector<u64>, Us>> rows = {
        {{}, {0, 0, 0, 0, 0}},      {{0}, {0, 0, 0, 0, 0}},
        {{1}, {1, 1, 1, 1, 1}},     {{1'000}, {1, 1, 1, 1, 1}},
        {{1'001}, {2, 2, 2, 2, 2}}, {{~u64{0}, 1}, {1, top, top, top, top}}};
    for (const auto& [latencies, expected] : rows) {
        std::for_each(latencies.begin(), latencies.end(), [&](u64 ns) { latency.countIo(ns); });
        EXPECT_EQ(percentilesUs(), expected) << (latencies.empty() ? 0 : latencies[0]);
    }
}

TEST_F(StorageLatencyTest, NothingIsLostBetweenReadingAndCounting) {
    constexpr u64 perThread = 12'000;
    constexpr unsigned int threadCount = ThreadLane::count + 2; // so that some have no lane
    std::atomic<unsigned int> started{0};
    const auto count = [&] {
        ThreadLane::mine();
        for (++started; started < threadCount;) {
            std::this_thread::yield();
        }
        for (u64 i = 0; i < perThread; i += 3) {
            latency.countIo(i % 50 * us);
            latency.countIo(200 * us);
            latency.countFailedIo(us);
        }
    };
    std::vector<std::thread> threads;
    std::generate_n(std::back_inserter(threads), threadCount, [&] { return std::thread(count); });
    u64 total = 0;
    u64 failed = 0;
    for (int i = 0; i <= 1'000; ++i) {
        if (i == 1'000) {
            std::for_each(threads.begin(), threads.end(), [](std::thread& each) { each.join(); });
        }
        limits.threshold = i % 2 == 0 ? 100 : 1'000;
        const StoragePeriod period = latency.closePeriod();
        const Classes classes = classesOf(period);
        total += std::accumulate(classes.begin(), classes.end(), u64{0});
        failed += period.failedIos;
        EXPECT_TRUE(period.maxUs <= 200) << period.maxUs;
    }
    EXPECT_EQ(total, threadCount * perThread / 3 * 2);
    EXPECT_EQ(failed, threadCount * perThread / 3);
}

// Two sets of limits between which a mixture would put a latency into a third class.
TEST(LimitsInForceTest, ALatencyIsJudgedUnderOneSetOfLimits) {
    const StorageLimits low{1, {1, 2, 3, 4}};
    const StorageLimits high{1'000, {100, 200, 300, 400}};
    LimitsInForce limits(low);
    std::atomic<bool> over{false};
    std::atomic<bool> judged{false};
    std::thread judge([&] {
        for (; !over; judged = true) {
            const LimitsInForce::Verdict verdict = limits.judge(50 * us);
            ASSERT_EQ(verdict.latencyClass, verdict.isSlow ? 4U : 0U);
        }
    });
    for (int i = 0; i < 100'000 || !judged; ++i) {
        limits.replace(i % 2 == 0 ? high : low);
    }
    over = true;
    judge.join();
}

class AioTest : public testing::Test {
protected:
    std::string read(StorageLatency& latency) {
        const StoragePeriod period = latency.closePeriod();
        const Classes classes = classesOf(period);
        return std::to_string(std::accumulate(classes.begin(), classes.end(), 0U)) + " and " +
               std::to_string(period.failedIos) + " failed";
    }

    AIO aio;
    Installed<AIO, AIO> installed{aio};
};

TEST_F(AioTest, EveryWayOfCountingReachesTheProcessAndItsSet) {
    StorageLatency writes;
    aio.countIo(1);
    aio.countFailedIo(1);
    AIO::Measure{}; // NOLINT(bugprone-unused-raii)
    for (const bool fails : {true, false, false}) {
        AIO::Measure io(writes);
        if (fails) {
            io.failed();
        }
    }
    EXPECT_EQ(read(writes), "2 and 1 failed");
    EXPECT_EQ(read(aio.latency()), "4 and 2 failed");
    StorageAnalyticsCounters counters;
    aio.countIo(~u64{0});
    aio.mabeStorageLatencyAnalytics(counters);
    EXPECT_EQ(counters.storageLatency[4], 1U);
}

TEST_F(AioTest, AMeasureIsInFlightWhileItLastsAndCountsItsTime) {
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
    const StoragePeriod period = reads.closePeriod();
    EXPECT_GE(period.maxUs, 1'900U);
    EXPECT_LE(period.maxUs, (monotonicNs() - startNs) / us + 1);
    EXPECT_EQ(reads.closePeriod().episodes, 0U);
}

TEST_F(AioTest, AFirstReportWithoutAnyIoNamesTheDoor) {
    for (const bool counts : {false, true}) {
        RecordingLog log;
        AIO fresh;
        StorageAnalyticsCounters counters;
        if (counts) {
            fresh.countFailedIo(1);
        }
        for (int report = 0; report < 3; ++report) {
            fresh.mabeStorageLatencyAnalytics(counters);
        }
        const std::vector<std::string> warnings = log.texts(WarnLevel);
        ASSERT_EQ(warnings.size(), counts ? 0U : 1U);
        EXPECT_TRUE(counts || warnings[0].find("AIO::countIo()") != std::string::npos);
    }
}

} // namespace
