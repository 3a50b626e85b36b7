#include "common/infra/Timer.h"
#include "host/services/TimerQueue.h"
#include "tests/support/RecordingLog.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <iterator>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using std::chrono::milliseconds;
using Cookies = std::vector<ITimer::Cookie>;

constexpr u64 oneMs = 1'000'000;
constexpr u64 oneSecond = 1000 * oneMs;
constexpr u64 bootNs = 12'345 * oneSecond; // where these tests begin

class TimerQueueTest : public testing::Test {
protected:
    TimerQueue queue;

    bool add(ITimer::Cookie cookie, u32 delayMs, bool once = true, u64 nowNs = bootNs) {
        return queue.add([](ITimer::Cookie) {}, cookie, delayMs, once, nowNs);
    }
    Cookies popAll(u64 nowNs) {
        Cookies popped;
        while (const auto expiry = queue.popDue(nowNs)) {
            popped.push_back(expiry->cookie);
        }
        return popped;
    }
    // Delivers what is due first, at its due time; the time that the expiry has waited.
    u64 deliver(u64& nowNs, void (Expiry::*outcome)()) {
        const u64 before = std::exchange(nowNs, queue.firstDueNs());
        EXPECT_FALSE(queue.popDue(nowNs - 1));
        auto expiry = queue.popDue(nowNs);
        (expiry.value().*outcome)();
        queue.rearm(*expiry, nowNs);
        return nowNs - before;
    }
};

TEST_F(TimerQueueTest, GivesExpiriesByDueTimeAndThenByOrderOfArming) {
    std::multimap<u64, ITimer::Cookie> oracle; // keeps equal keys in the order of insertion
    for (ITimer::Cookie cookie = 0; cookie < 2000; ++cookie) {
        const auto delayMs = static_cast<u32>(cookie * cookie % 53);
        EXPECT_EQ(add(cookie, delayMs), oracle.empty() || delayMs < oracle.begin()->first);
        oracle.emplace(delayMs, cookie);
    }
    for (u64 nowMs = 0; !oracle.empty(); nowMs += 7) {
        Cookies due;
        const auto end = oracle.upper_bound(nowMs);
        std::transform(oracle.begin(), end, std::back_inserter(due),
                       [](const auto& entry) { return entry.second; });
        oracle.erase(oracle.begin(), end);
        EXPECT_EQ(popAll(bootNs + nowMs * oneMs), due) << "at " << nowMs;
    }
}

TEST_F(TimerQueueTest, IsDueAtItsTimeHoweverFarAndNotBefore) {
    constexpr u64 century = oneSecond * 86'400 * 365 * 100;
    EXPECT_EQ(queue.firstDueNs(), ITimer::NEVER);
    for (const u32 delayMs : {0U, 1U, 4'294'968U, std::numeric_limits<u32>::max()}) {
        const u64 dueNs = century + u64{delayMs} * oneMs;
        add(delayMs, delayMs, true, century);
        EXPECT_EQ(queue.firstDueNs(), dueNs);
        EXPECT_EQ(popAll(dueNs - 1), Cookies{});
        EXPECT_EQ(popAll(dueNs), Cookies{delayMs});
    }
}

TEST_F(TimerQueueTest, RetriesAFailureAfterOneSecondDoublingUpToAMinute) {
    for (const bool once : {true, false}) {
        u64 nowNs = bootNs;
        add(7, 250, once);
        EXPECT_EQ(deliver(nowNs, &Expiry::failed), 250 * oneMs);
        for (const u64 seconds : {1, 2, 4, 8, 16, 32, 60, 60}) {
            EXPECT_EQ(deliver(nowNs, &Expiry::failed), seconds * oneSecond);
        }
        EXPECT_EQ(deliver(nowNs, &Expiry::returned), 60 * oneSecond);
        if (!once) { // is back to its own delay, and a new failure to the first retry
            EXPECT_EQ(deliver(nowNs, &Expiry::failed), 250 * oneMs);
            EXPECT_EQ(deliver(nowNs, &Expiry::returned), 1 * oneSecond);
            EXPECT_EQ(deliver(nowNs, &Expiry::returned), 250 * oneMs);
            queue.clear();
        }
        EXPECT_EQ(queue.firstDueNs(), ITimer::NEVER);
    }
}

class TimerTest : public testing::Test {
protected:
    using Clock = std::chrono::steady_clock;

    RecordingLog log;
    std::deque<std::function<void()>> actions; // outlive the timer that calls them
    Timer timer;

    static void call(ITimer::Cookie cookie) {
        (*reinterpret_cast<std::function<void()>*>(cookie))();
    }
    ITimer::Cookie keep(std::function<void()> action) {
        return reinterpret_cast<ITimer::Cookie>(&actions.emplace_back(std::move(action)));
    }
    ITimer::Cookie after(u32 delayMs, std::function<void()> action) {
        const ITimer::Cookie cookie = keep(std::move(action));
        timer.addTimer(call, cookie, delayMs, true);
        return cookie;
    }
    template <typename T>
    static T await(std::promise<T>& promise) {
        auto future = promise.get_future();
        if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            throw std::runtime_error("what was waited for did not come in 10 s");
        }
        return future.get();
    }
};

TEST_F(TimerTest, CallsBackOnItsOwnThreadNeverEarly) {
    after(3'600'000, [] { ADD_FAILURE() << "an hour too early"; });
    for (const u32 delayMs : {5U, 0U, 1U, 3U}) {
        std::promise<std::pair<Clock::time_point, std::thread::id>> called;
        const auto armed = Clock::now();
        after(delayMs, [&] { called.set_value({Clock::now(), std::this_thread::get_id()}); });
        const auto [time, thread] = await(called);
        EXPECT_GE(time - armed, milliseconds(delayMs));
        EXPECT_NE(thread, std::this_thread::get_id());
    }
}

TEST_F(TimerTest, RepeatsAfterTheCallbackHasReturnedAndLetsItArmMore) {
    std::vector<Clock::time_point> calls;
    std::promise<void> done;
    const ITimer::Cookie finish = keep([&] { done.set_value(); });
    const ITimer::Cookie tick = keep([&] {
        calls.push_back(Clock::now());
        if (calls.size() == 3) {
            timer.addTimer(call, finish, 0, true);
        }
    });
    timer.addTimer(call, tick, 2, false);
    await(done);
    timer.stop();
    EXPECT_GE(calls[1] - calls[0], milliseconds(2));
    EXPECT_GE(calls[2] - calls[1], milliseconds(2));
}

TEST_F(TimerTest, IsNotWokenWhileNothingIsDue) {
    const auto timesBlocked = [] {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_nvcsw;
    };
    std::promise<long> before;
    std::promise<long> behind;
    after(30, [&] { behind.set_value(timesBlocked()); });
    after(0, [&] { before.set_value(timesBlocked()); });
    const long start = await(before);
    auto end = behind.get_future();
    int later = 0;
    while (end.wait_for(std::chrono::microseconds(100)) != std::future_status::ready) {
        after(3'600'000, [] {});
        ASSERT_LT(++later, 10'000);
    }
    EXPECT_LE(end.get() - start, 4) << "once for the expiry, and by chance for the mutex";
}

TEST_F(TimerTest, LogsACallbackThatThrowsAndGoesOnWithTheOthers) {
    std::promise<void> other;
    const auto failing = after(0, [] { throw std::runtime_error("out of paper"); });
    const auto strange = after(0, [] { throw 42; });
    after(0, [&] { other.set_value(); });
    await(other);
    timer.stop();
    timer.addTimer(nullptr, 5, 0, true);

    const auto expected = [](const std::string& reason, ITimer::Cookie cookie) {
        return " timer callback failed: " + reason + " cookie=" + std::to_string(cookie) +
               "  retryInSec=1 \n";
    };
    EXPECT_EQ(log.texts(ErrorLevel),
              (std::vector<std::string>{expected("out of paper", failing),
                                        expected("an exception that is no std::exception", strange),
                                        " no callback, nothing is armed: cookie=5 \n"}));
    EXPECT_EQ(log.lines().at(0).module, LogModuleCommon);
}

TEST_F(TimerTest, StopWaitsForTheRunningCallbackWhoeverStops) {
    std::promise<void> running;
    std::promise<void> release;
    std::atomic<bool> returned{false};
    after(0, [&] {
        running.set_value();
        release.get_future().wait();
        returned = true;
    });
    await(running);
    const auto stop = [&] {
        timer.stop();
        return returned.load();
    };
    auto one = std::async(std::launch::async, stop);
    auto other = std::async(std::launch::async, stop);
    EXPECT_EQ(one.wait_for(milliseconds(10)), std::future_status::timeout);
    EXPECT_EQ(other.wait_for(milliseconds(10)), std::future_status::timeout);
    release.set_value();
    EXPECT_TRUE(one.get());
    EXPECT_TRUE(other.get());
}

TEST_F(TimerTest, StopFromInsideACallbackIsTheEndOfAll) {
    int calls = 0; // on the timer's thread, which has ended when it is read
    std::promise<void> armed;
    const ITimer::Cookie other = keep([&] { ++calls; });
    after(0, [&] {
        await(armed);
        timer.stop();
        timer.addTimer(call, other, 0, true);
        throw std::runtime_error("not delivered again");
    });
    timer.addTimer(call, other, 0, true);
    armed.set_value();
    EXPECT_TRUE(log.waitFor("not delivered again"));
    timer.stop();
    timer.init();
    timer.addTimer(call, other, 0, true);
    timer.stop();
    EXPECT_EQ(calls, 0);
}

TEST_F(TimerTest, TimeStampsShareOneOriginAndReadAsDates) {
    std::promise<void> later;
    after(2, [&] { later.set_value(); });
    await(later);
    const u64 ms = timer.getTimestampMs();
    const u64 micro = timer.getTimestampMicro();
    const u64 nano = timer.getTimestampNano();
    EXPECT_LE(ms, micro / 1000);
    EXPECT_LE(micro, nano / 1000);
    EXPECT_EQ(timer.getLastTimestampMs_Inaccurate(false), nano / oneMs);
    EXPECT_GE(timer.getLastTimestampMs_Inaccurate(true), nano / oneMs);
    EXPECT_LT(timer.getTimestampNano() - nano, 10 * oneSecond);
    EXPECT_LE(nano / oneSecond - static_cast<u64>(std::time(nullptr)) + 10, 20U);
    EXPECT_LE(timer.getClockMs() / 10 - timer.getJiffies() + 1000, 1000U);

    EXPECT_LE(timer.getRealTimestampMs() - timer.getTimestampMs() + 10'000, 20'000U);
    timer.setRealClockTime(1000);
    EXPECT_LE(timer.getRealTimestampMs() - 1000, 10'000U);
    EXPECT_GE(timer.getTimestampNano(), nano);
}

TEST_F(TimerTest, ReadsRealDatesInTwoForms) {
    const std::pair<const char*, const char*> dates[] = {
        {"2024-02-29 23:59:59", "4 2024-060 23:59:59"},
        {"2024-02-29T23:59:59Z", "4 2024-060 23:59:59"},
        {"1969-12-31 23:59:59", "3 1969-365 23:59:59"},
        {"9999-12-31T00:00:00Z", "5 9999-365 00:00:00"}};
    for (const auto& [text, expected] : dates) {
        tm result{};
        char read[64] = "";
        EXPECT_TRUE(timer.utcStringToTm(text, result)) << text;
        EXPECT_GT(std::strftime(read, sizeof read, "%w %Y-%j %T", &result), 0U);
        EXPECT_STREQ(read, expected);
    }
    for (const char* text :
         {"2023-02-29 00:00:00", "1900-02-29 00:00:00", "2024-04-31 00:00:00",
          "2024-13-01 00:00:00", "2024-00-10 00:00:00", "2024-01-00 00:00:00",
          "2024-01-01 24:00:00", "2024-01-01 00:60:00", "2024-01-01 00:00:60",
          "2024-01-01T00:00:00", "2024-01-01 00:00:00Z", "2024-01-01 00:00:00 ",
          "2024-01-01  0:00:00", "+024-01-01 00:00:00", "24-01-01 00:00:00", ""}) {
        tm result{};
        result.tm_year = -1;
        EXPECT_FALSE(timer.utcStringToTm(text, result)) << text;
        EXPECT_EQ(result.tm_year, -1) << text;
    }
}

} // namespace
