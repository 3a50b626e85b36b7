#include "common/infra/Timer.h"

#include "common/infra/Lock.h"
#include "common/infra/Log.h"
#include "host/services/Clock.h"
#include "host/services/TimerQueue.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <ostream>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

namespace {

constexpr u64 oneJiffyInNs = nsPerSecond / ITimer::JIFFIES_PER_SEC;

u64 systemMs() {
    return readClockNs(CLOCK_REALTIME) / nsPerMs;
}

// In the pattern, 0 stands for any digit and any other character for itself.
bool hasForm(const std::string& text, std::string_view pattern) {
    if (text.size() != pattern.size()) {
        return false;
    }
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (pattern[i] == '0' ? !digit : text[i] != pattern[i]) {
            return false;
        }
    }
    return true;
}

int number(const std::string& text, std::size_t first, std::size_t length) {
    int value = 0;
    for (const char digit : std::string_view(text).substr(first, length)) {
        value = value * 10 + (digit - '0');
    }
    return value;
}

bool isSameSecond(const tm& left, const tm& right) {
    const auto fields = [](const tm& time) {
        return std::tie(time.tm_year, time.tm_mon, time.tm_mday, time.tm_hour, time.tm_min,
                        time.tm_sec);
    };
    return fields(left) == fields(right);
}

} // namespace

struct ANALYTICS_HIDDEN Timer::Impl {
    // Fixed after construction. A time stamp is the monotonic clock plus this. The sums wrap modulo
    // 2^64, so either clock may be ahead.
    const u64 originNs = readClockNs(CLOCK_REALTIME) - monotonicNs();

    std::atomic<u64> lastTimestampMs{timestampNs() / nsPerMs};
    std::atomic<u64> realClockOffsetMs{0}; // modulo 2^64

    std::condition_variable wake; // the first expiry has changed, or the service was stopped
    std::condition_variable idle; // a callback has returned
    CheckedMutex mutex;
    TimerQueue queue ANALYTICS_GUARDED_BY(mutex);
    std::thread thread ANALYTICS_GUARDED_BY(mutex);
    bool delivering ANALYTICS_GUARDED_BY(mutex) = false;
    bool stopped ANALYTICS_GUARDED_BY(mutex) = false;

    u64 timestampNs() const { return monotonicNs() + originNs; }
    u64 readTimestampNs();

    void startThread() ANALYTICS_REQUIRES(mutex);
    void run();
    void sleep(CheckedLock& lock) ANALYTICS_REQUIRES(mutex);
    // Releases the mutex meanwhile.
    void deliver(Expiry& expiry) ANALYTICS_REQUIRES(mutex);
    static void call(Expiry& expiry) noexcept;
    static void reportFailure(const Expiry& expiry, const char* reason);
};

// The last time stamp only grows. It is written once a millisecond, not at each reading.
u64 Timer::Impl::readTimestampNs() {
    const u64 nowNs = timestampNs();
    const u64 nowMs = nowNs / nsPerMs;
    u64 lastMs = lastTimestampMs.load(std::memory_order_relaxed);
    while (lastMs < nowMs &&
           !lastTimestampMs.compare_exchange_weak(lastMs, nowMs, std::memory_order_relaxed)) {
    }
    return nowNs;
}

void Timer::Impl::startThread() {
    if (!stopped && !thread.joinable()) {
        thread = std::thread([this] { run(); });
    }
}

void Timer::Impl::run() {
    pthread_setname_np(pthread_self(), "analytics-timer");
    // The kernel may delay a thread's wake-ups by its slack, 50 us unless told otherwise.
    prctl(PR_SET_TIMERSLACK, 1UL);

    CheckedLock lock(mutex);
    while (!stopped) {
        if (auto expiry = queue.popDue(monotonicNs())) {
            deliver(*expiry);
        } else {
            sleep(lock);
        }
    }
}

void Timer::Impl::sleep(CheckedLock& lock) {
    const u64 dueNs = queue.firstDueNs();
    if (dueNs == NEVER) {
        wake.wait(lock);
    } else {
        // The steady clock counts what CLOCK_MONOTONIC counts.
        wake.wait_until(lock,
                        std::chrono::steady_clock::time_point(std::chrono::nanoseconds(dueNs)));
    }
}

void Timer::Impl::deliver(Expiry& expiry) {
    delivering = true;
    mutex.unlock();
    call(expiry);
    mutex.lock();
    delivering = false;
    if (stopped) {
        idle.notify_all();
    } else {
        queue.rearm(expiry, monotonicNs());
    }
}

void Timer::Impl::call(Expiry& expiry) noexcept {
    try {
        expiry.callback(expiry.cookie);
        expiry.returned();
    } catch (const std::exception& error) {
        expiry.failed();
        reportFailure(expiry, error.what());
    } catch (...) {
        expiry.failed();
        reportFailure(expiry, "an exception that is no std::exception");
    }
}

void Timer::Impl::reportFailure(const Expiry& expiry, const char* reason) {
    LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
        << " timer callback failed: " << reason << " cookie=" << expiry.cookie
        << "  retryInSec=" << u32{expiry.retrySec} << " " << std::endl;
}

Timer::Timer() : m_impl(std::make_unique<Impl>()) {}

Timer::~Timer() {
    stop();
}

void Timer::init() {
    const CheckedLock lock(m_impl->mutex);
    m_impl->startThread();
}

u64 Timer::getTimestampNano() {
    return m_impl->readTimestampNs();
}

u64 Timer::getTimestampMicro() {
    return m_impl->readTimestampNs() / nsPerUs;
}

u64 Timer::getTimestampMs() {
    return m_impl->readTimestampNs() / nsPerMs;
}

u64 Timer::getClockMs() {
    return monotonicNs() / nsPerMs;
}

u64 Timer::getLastTimestampMs_Inaccurate(bool refresh) {
    return refresh ? getTimestampMs() : m_impl->lastTimestampMs.load(std::memory_order_relaxed);
}

void Timer::addTimer(Callback callback, Cookie cookie, u32 delayMs, bool once) {
    if (callback == nullptr) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << " no callback, nothing is armed: cookie=" << cookie << " " << std::endl;
        return;
    }
    const u64 nowNs = monotonicNs();
    {
        const CheckedLock lock(m_impl->mutex);
        if (m_impl->stopped) {
            return;
        }
        m_impl->startThread();
        if (!m_impl->queue.add(callback, cookie, delayMs, once, nowNs)) {
            return;
        }
    }
    m_impl->wake.notify_one();
}

u64 Timer::getCurentThreadTickCount() {
    return readClockNs(CLOCK_THREAD_CPUTIME_ID);
}

u64 Timer::getCurentProcessTickCount() {
    return readClockNs(CLOCK_PROCESS_CPUTIME_ID);
}

void Timer::setRealClockTime(u64 realTimeMs) {
    m_impl->realClockOffsetMs.store(realTimeMs - systemMs(), std::memory_order_relaxed);
}

u64 Timer::getRealTimestampMs() {
    return systemMs() + m_impl->realClockOffsetMs.load(std::memory_order_relaxed);
}

u64 Timer::getJiffies() {
    return monotonicNs() / oneJiffyInNs;
}

bool Timer::utcStringToTm(const std::string& text, tm& result) {
    if (!hasForm(text, "0000-00-00 00:00:00") && !hasForm(text, "0000-00-00T00:00:00Z")) {
        return false;
    }
    tm parsed{};
    parsed.tm_year = number(text, 0, 4) - 1900;
    parsed.tm_mon = number(text, 5, 2) - 1;
    parsed.tm_mday = number(text, 8, 2);
    parsed.tm_hour = number(text, 11, 2);
    parsed.tm_min = number(text, 14, 2);
    parsed.tm_sec = number(text, 17, 2);

    // Changes a text that is no date, such as February 30, into another date.
    tm normalised = parsed;
    timegm(&normalised);
    if (!isSameSecond(parsed, normalised)) {
        return false;
    }
    result = normalised;
    return true;
}

void Timer::stop() {
    std::thread ended;
    {
        CheckedLock lock(m_impl->mutex);
        m_impl->stopped = true;
        m_impl->queue.clear();
        if (m_impl->thread.get_id() == std::this_thread::get_id()) {
            return;
        }
        m_impl->wake.notify_one();
        // Several threads may stop the service, but one alone can join.
        while (m_impl->delivering) {
            m_impl->idle.wait(lock);
        }
        ended = std::move(m_impl->thread);
    }
    if (ended.joinable()) {
        ended.join();
    }
}
