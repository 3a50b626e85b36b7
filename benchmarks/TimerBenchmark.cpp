#include "benchmarks/Benchmark.h"
#include "common/infra/Timer.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <deque>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <system_error>

namespace {

constexpr u64 pendingTimers = 100'000;
constexpr u64 armingsInSlice = 20'000;
constexpr u32 firstDelayMs = 3'600'000;

// All after the first one, so that no arming is the first to come.
class Delays {
public:
    Delays() {
        std::minstd_rand random; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same ones every time
        std::uniform_int_distribution<u32> hours(firstDelayMs + 1, 24 * firstDelayMs);
        std::generate(m_ms.begin(), m_ms.end(), [&] { return hours(random); });
    }

    u32 operator[](u64 number) const { return m_ms[number % m_ms.size()]; }

private:
    std::array<u32, 4096> m_ms{};
};

const Delays delays;

// Our timer, its thread asleep until the first expiry.
class OwnTimers {
public:
    void clear() { m_timer.emplace(); }

    void arm(u32 delayMs) {
        static_cast<ITimer&>(*m_timer).addTimer([](ITimer::Cookie) {}, 0, delayMs, true);
    }

private:
    std::optional<Timer> m_timer;
};

class AsioTimers {
public:
    void clear() {
        m_timers.clear();
        m_context.emplace();
    }

    void arm(u32 delayMs) {
        m_timers.emplace_back(*m_context, std::chrono::milliseconds(delayMs))
            .async_wait([](const boost::system::error_code&) {});
    }

private:
    std::optional<boost::asio::io_context> m_context;
    std::deque<boost::asio::steady_timer> m_timers; // a timer that is destroyed is cancelled
};

template <typename Timers>
void armMany(Timers& timers, u64 times) {
    for (u64 i = 0; i < times; ++i) {
        timers.arm(delays[i]);
    }
}

template <typename Timers>
Case arming(const std::string& name, Timers& timers) {
    Case result{name, [&timers](u64 times) { armMany(timers, times); }};
    result.prepare = [&timers] {
        timers.clear();
        timers.arm(firstDelayMs);
        armMany(timers, pendingTimers);
    };
    result.iterations = armingsInSlice;
    return result;
}

std::vector<Result> compareArming(const Settings& settings) {
    OwnTimers ours;
    AsioTimers peer;
    const auto samples =
        interleave({arming("ours", ours), arming("Boost.Asio steady_timer", peer)}, settings);
    return {
        compare("arming a timer with 100,000 pending", samples[0], samples[1], Target::atLeast(2))};
}

s64 nowNs() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return s64{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

constexpr s64 oneMsInNs = 1'000'000;

// Each waits for one expiry and answers how many nanoseconds too late it was noticed.

class OwnExpiry {
public:
    s64 lateness(u32 delayMs) {
        std::promise<s64> expired;
        const s64 dueNs = nowNs() + delayMs * oneMsInNs;
        m_timer.addTimer(
            [](ITimer::Cookie cookie) {
                const s64 seenNs = nowNs();
                reinterpret_cast<std::promise<s64>*>(cookie)->set_value(seenNs);
            },
            reinterpret_cast<ITimer::Cookie>(&expired), delayMs, true);
        return expired.get_future().get() - dueNs;
    }

private:
    Timer m_timer;
};

int checked(int result, const char* call) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), call);
    }
    return result;
}

class TimerfdExpiry {
public:
    TimerfdExpiry() {
        epoll_event event{};
        event.events = EPOLLIN;
        checked(epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_timer, &event), "epoll_ctl");
    }

    ~TimerfdExpiry() {
        close(m_epoll);
        close(m_timer);
    }

    TimerfdExpiry(const TimerfdExpiry&) = delete;
    TimerfdExpiry& operator=(const TimerfdExpiry&) = delete;

    s64 lateness(u32 delayMs) {
        const s64 dueNs = nowNs() + delayMs * oneMsInNs;
        itimerspec due{};
        due.it_value = {dueNs / 1'000'000'000, dueNs % 1'000'000'000};
        checked(timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &due, nullptr), "timerfd_settime");
        epoll_event event{};
        checked(epoll_wait(m_epoll, &event, 1, -1), "epoll_wait");
        return nowNs() - dueNs;
    }

private:
    int m_timer = checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "timerfd_create");
    int m_epoll = checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
};

// The expiries of one round.
class Latenesses {
public:
    void add(s64 ns) {
        m_ns.push_back(static_cast<double>(ns));
        m_early += ns < 0 ? 1 : 0;
    }

    double quantile(double part) {
        std::sort(m_ns.begin(), m_ns.end());
        return m_ns[static_cast<std::size_t>(part * static_cast<double>(m_ns.size() - 1))];
    }

    u64 early() const { return m_early; }

private:
    std::vector<double> m_ns;
    u64 m_early = 0;
};

struct LatenessSamples {
    Samples median;
    Samples highest;
};

void addRound(LatenessSamples& samples, Latenesses& round) {
    samples.median.ns.push_back(round.quantile(0.5));
    samples.highest.ns.push_back(round.quantile(0.99));
}

std::vector<Result> compareLateness(const Settings& settings) {
    const unsigned int rounds = std::max(1U, settings.rounds / 3);
    const int expiries = settings.smoke ? 5 : 100; // of each in a round
    pinThread(0);                                  // the timer's thread takes it over
    OwnExpiry own;
    TimerfdExpiry bare;
    LatenessSamples ours{{"ours", {}}, {"ours", {}}};
    LatenessSamples theirs{{"timerfd and epoll", {}}, {"timerfd and epoll", {}}};
    u64 early = 0;
    std::minstd_rand random; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same order every time
    for (unsigned int i = 0; i < rounds; ++i) {
        Latenesses ourRound;
        Latenesses theirRound;
        for (int expiry = 0; expiry < expiries; ++expiry) {
            const u32 delayMs = 1 + random() % 2;
            if (random() % 2 == 0) {
                ourRound.add(own.lateness(delayMs));
                theirRound.add(bare.lateness(delayMs));
            } else {
                theirRound.add(bare.lateness(delayMs));
                ourRound.add(own.lateness(delayMs));
            }
        }
        addRound(ours, ourRound);
        addRound(theirs, theirRound);
        early += ourRound.early();
    }
    return {
        compare("lateness of an expiry, median", ours.median, theirs.median, Target::atMost(1.5)),
        compare("lateness of an expiry, 99th percentile", ours.highest, theirs.highest,
                Target::atMost(2)),
        {"expiries that came early",
         "",
         "",
         static_cast<double>(early),
         {},
         {},
         Target::atMost(0)}};
}

// On a thread of its own, which is pinned.
std::vector<Result> compareLatenessApart(const Settings& settings) {
    return std::async(std::launch::async, compareLateness, settings).get();
}

} // namespace

std::vector<Benchmark> timerBenchmarks() {
    return {{"arming", compareArming}, {"lateness", compareLatenessApart}};
}
