#include "common/infra/Timer.h"
#include "host/services/Clock.h"
#include "host/services/TimerQueue.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Action.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Files.h"

namespace {

using Texts = std::vector<std::string>;

constexpr u64 century = nsPerSecond * 86'400 * 365 * 100; // where the queue's tests begin

TEST(TimerQueueTest, GivesExpiriesByDueTimeThenByOrderOfArming) {
    TimerQueue queue;
    std::vector<std::pair<u64, ITimer::Cookie>> armed; // with their due times
    for (ITimer::Cookie cookie = 0; cookie < 2000; ++cookie) {
        const auto delayMs = static_cast<u32>((cookie + 20) * cookie % 53);
        const u64 dueNs = century + delayMs * nsPerMs;
        const bool isFirst = dueNs < queue.firstDueNs();
        EXPECT_EQ(queue.add(nullptr, cookie, delayMs, true, century), isFirst) << cookie;
        armed.emplace_back(dueNs, cookie);
    }
    std::sort(armed.begin(), armed.end());
    for (const auto& [dueNs, cookie] : armed) {
        EXPECT_FALSE(queue.popDue(dueNs - 1)) << cookie;
        EXPECT_EQ(queue.popDue(dueNs).value().cookie, cookie);
    }
}

TEST(TimerQueueTest, RetriesAFailureAfterOneSecondDoublingUpToAMinute) {
    for (const bool once : {false, true}) {
        TimerQueue queue;
        u64 nowNs = century;
        std::string waits; // until each delivery, in ms; with a minus if it fails
        queue.add(nullptr, 7, ~0U, once, nowNs);
        for (const char outcome : std::string("-------- - ")) {
            if (queue.firstDueNs() != ITimer::NEVER) {
                waits += outcome + std::to_string((queue.firstDueNs() - nowNs) / nsPerMs);
                nowNs = queue.firstDueNs() + nsPerMs; // a little late
                Expiry expiry = queue.popDue(nowNs).value();
                outcome == '-' ? expiry.failed() : expiry.returned();
                queue.rearm(expiry, nowNs);
            }
        }
        EXPECT_EQ(waits, std::string("-4294967295-1000-2000-4000-8000-16000-32000-60000 60000") +
                             (once ? "" : "-4294967295 1000"));
        queue.clear();
        EXPECT_EQ(queue.firstDueNs(), ITimer::NEVER);
    }
}

TEST(TimerQueueTest, RearmingNeedsNoMemory) {
    TimerQueue queue;
    for (int pending = 0; pending < 100; ++pending) { // more than once as many as there is room for
        queue.add(nullptr, 1, 0, false, century);
        const auto expiry = queue.popDue(century);
        queue.add(nullptr, 2, 0, false, century); // may take the room of the other
        allocationsLeft = 0;
        queue.rearm(expiry.value(), century);
        EXPECT_EQ(std::exchange(allocationsLeft, unlimitedAllocations), 0);
    }
    queue.clear();
    allocationsLeft = 0;
    for (int round = 0; round < 1000; ++round) { // uses the room of what is over again
        queue.add(nullptr, 3, 0, true, century);
        queue.rearm(queue.popDue(century).value(), century);
    }
    EXPECT_EQ(std::exchange(allocationsLeft, unlimitedAllocations), 0);
}

class TimerTest : public testing::Test {
protected:
    void expectDone() {
        ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }

    RecordingLog log;
    std::promise<void> done;
    Action finish = [this] { done.set_value(); };
    Action never = [] { ADD_FAILURE() << "called before its time or after the stop"; };
    Timer timer;
};

TEST_F(TimerTest, WakesForAnEarlierExpiryAndForNothingElse) {
    arm(timer, never, 3'600'000);
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        for (int turn = 0; turn < round; ++turn) { // so that the thread mostly waits by then
            std::this_thread::yield();
        }
        arm(timer, finish);
        expectDone();
        done = {};
    }
    long wakes = 0;
    Action count = [&wakes] {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        wakes = usage.ru_nvcsw - wakes;
    };
    Action countAndFinish = [&] { count(), finish(); };
    arm(timer, count);
    arm(timer, countAndFinish, 30);
    expectDone();
    EXPECT_LE(wakes, 5) << "once for the second call, and by chance for the mutex";
}

TEST_F(TimerTest, AFailedCallbackComesAgain) {
    const Action attempts[] = {[] { throw std::runtime_error("out of paper"); }, [] { throw 4.2; },
                               [this] { arm(timer, never, 500); },
                               [this] { timer.stop(), finish(); }};
    Action failing = [&, next = std::size_t{0}]() mutable { attempts[next++](); };
    arm(timer, failing, 0, false);
    expectDone(); // in 3 s
    timer.addTimer(nullptr, 5, 0, true);
    const std::string cookie = " cookie=" + std::to_string(cookieOf(failing)) + "  retryInSec=";
    const std::string failed = " timer callback failed: ";
    EXPECT_EQ(log.texts(ErrorLevel),
              (Texts{failed + "out of paper" + cookie + "1 \n",
                     failed + "an exception that is no std::exception" + cookie + "2 \n",
                     " no callback, nothing is armed: cookie=5 \n"}));
}

TEST_F(TimerTest, AStopWaitsForTheCallback) {
    std::promise<void> release;
    std::atomic<bool> returned{false};
    Action stopping = [&] {
        timer.stop();
        arm(timer, never);
        finish();
        release.get_future().wait();
        returned = true;
    };
    arm(timer, stopping, 0, false);
    arm(timer, never, 1);
    expectDone();
    const auto stop = [&] { return timer.stop(), returned.load(); };
    auto one = std::async(std::launch::async, stop);
    auto other = std::async(std::launch::async, stop);
    EXPECT_EQ(one.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
    release.set_value();
    EXPECT_TRUE(one.get() && other.get());
}

TEST_F(TimerTest, HasOneThreadFromInitToStop) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer starts a thread of its own with the first of the process";
#endif
    const std::ptrdiff_t before = entriesOf("/proc/self/task");
    timer.init();
    timer.init();
    EXPECT_EQ(entriesOf("/proc/self/task"), before + 1);
    timer.stop();
    timer.init();
    EXPECT_EQ(entriesOf("/proc/self/task"), before);
}

TEST_F(TimerTest, ReadsItsClocksInTheirUnits) {
    const u64 ms = timer.getTimestampMs();
    const u64 micro = timer.getTimestampMicro();
    const u64 nano = timer.getTimestampNano();
    EXPECT_TRUE(ms <= micro / 1000 && micro <= nano / 1000 && nano < (ms + 10'000) * nsPerMs);
    arm(timer, finish, 2);
    expectDone();
    EXPECT_EQ(timer.getLastTimestampMs_Inaccurate(false), nano / nsPerMs);
    EXPECT_GT(timer.getLastTimestampMs_Inaccurate(true), nano / nsPerMs);
    EXPECT_GT(timer.getLastTimestampMs_Inaccurate(false), nano / nsPerMs);
    EXPECT_LE(nano / nsPerSecond - static_cast<u64>(std::time(nullptr)) + 10, 20U);
    EXPECT_LE(timer.getClockMs() / 10 - timer.getJiffies() + 1000, 1000U);
    timer.setRealClockTime(1000);
    EXPECT_LE(timer.getRealTimestampMs() - 1000, 10'000U);

    const u64 ofThread = timer.getCurentThreadTickCount();
    const u64 ofProcess = timer.getCurentProcessTickCount();
    std::async(std::launch::async, [&] {
        while (timer.getCurentThreadTickCount() < 20 * nsPerMs) {
        }
    }).get();
    EXPECT_LT(timer.getCurentThreadTickCount() - ofThread, 10 * nsPerMs);
    EXPECT_GE(timer.getCurentProcessTickCount() - ofProcess, 20 * nsPerMs);
}

TEST_F(TimerTest, ParsesDates) {
    const auto parsed = [this](const char* text) {
        tm date{};
        const bool isDate = timer.utcStringToTm(text, date);
        return std::string(isDate ? "" : "no date, ") + std::asctime(&date);
    };
    EXPECT_EQ(parsed("2024-02-29 23:58:59"), "Thu Feb 29 23:58:59 2024\n");
    EXPECT_EQ(parsed("1969-12-31T23:59:58Z"), "Wed Dec 31 23:59:58 1969\n");
    for (const char* const text :
         {"2023-02-29 00:00:00", "2024-01-01T00:00:00", "2024-01-01 00:00:00 ",
          "2024-01-0: 00:00:00", "2024/01/01 00:00:00", "2024-01-01 24:00:00"}) {
        EXPECT_EQ(parsed(text), "no date, Sun Jan  0 00:00:00 1900\n") << text;
    }
}

} // namespace
