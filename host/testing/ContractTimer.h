#pragma once

#include "host/testing/ContractHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace analytics_contract {

// Reports that a service does not keep what it promises.
inline void reportBroken(const std::string& promise, const std::string& seen) {
    ADD_FAILURE() << "Broken promise: " << promise << ".\nSeen: " << seen << ".";
}

// What became of an arming.
struct Expiry {
    u32 delayMs = 0;
    u64 armedAtMs = 0;
    ITimer* timer = nullptr;
    std::function<void()> action{}; // runs in the first call

    int calls = 0;
    bool insideArming = false;
    u64 calledAtMs = 0; // the first call
    u64 place = 0;      // of the first call among all first calls
    int done = 0;       // calls that have returned or thrown
};

// Arms expiries and watches what the timer service makes of them. What callbacks write into lives
// as long as the process, since they may come late.
class Expiries {
public:
    using Cookie = ITimer::Cookie;

    explicit Expiries(ContractHost& host) : m_host(host) { shared().strangers.clear(); }
    // What still comes does nothing any more.
    ~Expiries() {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        for (auto& [cookie, expiry] : shared().expiries) {
            expiry.action = nullptr;
        }
    }
    Expiries(const Expiries&) = delete;
    Expiries& operator=(const Expiries&) = delete;

    Cookie arm(u32 delayMs, std::function<void()> action = {}) {
        ITimer& timer = m_host.timer();
        Expiry expiry{delayMs, timer.getTimestampMs(), &timer, std::move(action)};
        Cookie cookie = 0;
        {
            const std::lock_guard<std::mutex> lock(shared().mutex);
            cookie = ++shared().lastCookie;
            shared().expiries[cookie] = std::move(expiry);
        }
        const Arming arming;
        timer.addTimer(&Expiries::expired, cookie, delayMs, true);
        return cookie;
    }

    // Lets the time of the delay pass. False if there were not so many calls within the host's
    // limit.
    bool await(Cookie cookie, int calls = 1) {
        m_host.passTime(of(cookie).delayMs);
        std::unique_lock<std::mutex> lock(shared().mutex);
        return shared().changed.wait_for(
            lock, m_host.limit(), [&] { return shared().expiries.at(cookie).done >= calls; });
    }

    Expiry of(Cookie cookie) const {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        return shared().expiries.at(cookie);
    }
    // Cookies that came and had not been given.
    std::vector<Cookie> strangers() const {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        return shared().strangers;
    }

private:
    struct Shared {
        std::mutex mutex;
        std::condition_variable changed;
        // Wide, so that one that is cut shows.
        Cookie lastCookie = std::numeric_limits<Cookie>::max() / 3;
        std::map<Cookie, Expiry> expiries;
        std::vector<Cookie> strangers;
        u64 places = 0;
    };
    static Shared& shared() {
        static auto* state = new Shared;
        return *state;
    }

    static void expired(Cookie cookie) {
        const std::function<void()> action = recordCall(cookie);
        const RecordEnd end{cookie};
        if (action) {
            action();
        }
    }

    static std::function<void()> recordCall(Cookie cookie) {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        const auto found = shared().expiries.find(cookie);
        if (found == shared().expiries.end()) {
            shared().strangers.push_back(cookie);
            return {};
        }
        Expiry& expiry = found->second;
        expiry.insideArming = expiry.insideArming || isArming;
        if (++expiry.calls == 1) {
            expiry.calledAtMs = expiry.timer->getTimestampMs();
            expiry.place = ++shared().places;
        }
        return std::exchange(expiry.action, {});
    }

    struct RecordEnd {
        Cookie cookie;

        ~RecordEnd() {
            const std::lock_guard<std::mutex> lock(shared().mutex);
            const auto found = shared().expiries.find(cookie);
            if (found != shared().expiries.end()) {
                ++found->second.done;
            }
            shared().changed.notify_all();
        }
    };

    // The calling thread is inside addTimer().
    inline static thread_local bool isArming = false;
    struct Arming {
        Arming() { isArming = true; }
        ~Arming() { isArming = false; }
    };

    ContractHost& m_host;
};

inline std::string describe(const Expiry& expiry) {
    return "the expiry that was armed with " + std::to_string(expiry.delayMs) + " ms";
}

inline std::string missing(ContractHost& host, const Expiry& expiry) {
    return describe(expiry) + " had not come after " + std::to_string(host.limit().count()) + " ms";
}

// Required.

inline void eachArmingIsOneExpiry(ContractHost& host) {
    const std::string promise = "ITimer::addTimer() gives exactly one call of the callback";
    Expiries expiries(host);
    std::vector<Expiries::Cookie> armed;
    for (const u32 delayMs : {0U, 5U, 5U}) {
        armed.push_back(expiries.arm(delayMs));
    }
    // By the time the last one comes, one that repeats itself has come again.
    const auto awaited = [&](Expiries::Cookie cookie) { return expiries.await(cookie); };
    if (std::all_of(armed.begin(), armed.end(), awaited)) {
        armed.push_back(expiries.arm(25));
        expiries.await(armed.back());
    }
    for (const auto cookie : armed) {
        const Expiry expiry = expiries.of(cookie);
        if (expiry.calls != 1) {
            reportBroken(promise, expiry.calls == 0 ? missing(host, expiry)
                                                    : describe(expiry) + " came " +
                                                          std::to_string(expiry.calls) + " times");
            return;
        }
    }
}

inline void noExpiryComesFromInsideTheArming(ContractHost& host) {
    Expiries expiries(host);
    for (const u32 delayMs : {0U, 1U}) {
        const auto cookie = expiries.arm(delayMs);
        expiries.await(cookie);
        if (expiries.of(cookie).insideArming) {
            reportBroken("ITimer::addTimer() returns before its callback is called on its thread",
                         describe(expiries.of(cookie)) + " came from inside addTimer()");
        }
    }
}

inline void theCookieComesBackUnchanged(ContractHost& host) {
    Expiries expiries(host);
    const auto cookie = expiries.arm(0);
    if (!expiries.await(cookie)) {
        const auto strangers = expiries.strangers();
        reportBroken("the callback gets the cookie that addTimer() was given",
                     "cookie " + std::to_string(cookie) +
                         (strangers.empty()
                              ? " did not come back"
                              : " came back as " + std::to_string(strangers.front())));
    }
}

inline void noExpiryComesEarly(ContractHost& host) {
    const std::string promise =
        "an expiry does not come before its delay, in milliseconds, is over";
    Expiries expiries(host);
    const auto never = expiries.arm(std::numeric_limits<u32>::max());
    const auto soon = expiries.arm(30);
    if (!expiries.await(soon)) {
        reportBroken(promise, missing(host, expiries.of(soon)));
        return;
    }
    const Expiry expiry = expiries.of(soon);
    const u64 afterMs = expiry.calledAtMs - expiry.armedAtMs;
    if (afterMs + 1 < expiry.delayMs) { // a clock may round
        reportBroken(promise, describe(expiry) + " came after " + std::to_string(afterMs) + " ms");
    }
    if (expiries.of(never).calls > 0) {
        reportBroken(promise, describe(expiries.of(never)) + " came at once");
    }
}

inline void aCallbackCanArmTheNextExpiry(ContractHost& host) {
    Expiries expiries(host);
    Expiries::Cookie second = 0;
    Expiries::Cookie third = 0;
    const auto first =
        expiries.arm(1, [&] { second = expiries.arm(2, [&] { third = expiries.arm(3); }); });
    for (const auto* const next : std::array<const Expiries::Cookie*, 3>{&first, &second, &third}) {
        if (!expiries.await(*next)) {
            reportBroken("ITimer::addTimer() may be called from inside a callback",
                         missing(host, expiries.of(*next)));
            return;
        }
    }
}

inline void timeStampsNeverRunBackwards(ContractHost& host) {
    ITimer& timer = host.timer();
    std::atomic<u64> latest{timer.getTimestampMs()};
    std::atomic<u64> backwardsMs{0};
    const auto read = [&] {
        for (int i = 0; i < 20'000; ++i) {
            u64 before = latest.load();
            const u64 now = timer.getTimestampMs();
            if (now < before) {
                backwardsMs = before - now;
            }
            while (before < now && !latest.compare_exchange_weak(before, now)) {
            }
        }
    };
    std::thread other(read);
    read();
    other.join();
    if (backwardsMs > 0) {
        reportBroken(
            "ITimer::getTimestampMs() never answers less than it did before, on any thread",
            "an answer was " + std::to_string(backwardsMs) + " ms less");
    }
}

inline void timeStampsCountMilliseconds(ContractHost& host) {
    using Clock = std::chrono::steady_clock;
    const std::string promise = "ITimer::getTimestampMs() counts milliseconds";
    Expiries expiries(host);
    const Clock::time_point start = Clock::now();
    const auto cookie = expiries.arm(50);
    const bool came = expiries.await(cookie);
    const std::chrono::duration<double, std::milli> elapsed = Clock::now() - start;
    const Expiry expiry = expiries.of(cookie);
    if (!came) {
        reportBroken(promise, missing(host, expiry));
        return;
    }
    // Once the delay for the coarseness of a clock, and the elapsed time for a late callback.
    const u64 counted = expiry.calledAtMs - expiry.armedAtMs;
    if (counted + 1 < expiry.delayMs ||
        static_cast<double>(counted) > 2 * expiry.delayMs + elapsed.count()) {
        reportBroken(promise, "it counted " + std::to_string(counted) + " until " +
                                  describe(expiry) + " came");
    }
}

// Advised.

inline void aThrowingCallbackComesAgain(ContractHost& host) {
    Expiries expiries(host);
    const auto cookie = expiries.arm(1, [] { throw std::runtime_error("thrown by the check"); });
    if (!expiries.await(cookie, 2)) {
        reportBroken("a callback that throws is called again, so that a periodic report goes on",
                     "it was called " + std::to_string(expiries.of(cookie).calls) + " times");
    }
}

inline void expiriesComeInOrder(ContractHost& host) {
    Expiries expiries(host);
    const auto later = expiries.arm(60);
    const auto sooner = expiries.arm(20);
    expiries.await(sooner);
    expiries.await(later);
    if (expiries.of(later).calls == 0 || expiries.of(sooner).place > expiries.of(later).place) {
        reportBroken("expiries come in the order of their due times",
                     "an expiry of 60 ms came before one of 20 ms that was armed after it");
    }
}

} // namespace analytics_contract
