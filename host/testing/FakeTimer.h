#pragma once

#include "common/infra/Export.h"
#include "common/infra/Timer.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <vector>

// A timer service whose time stands still until the test moves it. Callbacks run inside
// advanceTo(), on the test's thread. One thread at a time.
//
// The three time stamps tell one time in their units. Every other clock is ahead of it by a time of
// its own, so that asking the wrong one shows.
class ANALYTICS_TAG FakeTimer : public ITimer {
public:
    struct Expiry {
        Callback callback;
        Cookie cookie;
        u32 delayMs;
        bool once;
        u64 dueMs;
    };

    virtual ~FakeTimer() = default;

    // Moves the time forward and runs what falls due on the way, each at its due time, and returns
    // how many callbacks that were. What a callback throws comes out here; its expiry is used up.
    // A callback may move the time on itself. Throws std::invalid_argument for a time that is over.
    int advanceTo(u64 timeMs) {
        if (timeMs < m_nowMs) {
            throw std::invalid_argument("FakeTimer::advanceTo: expected no earlier time than now");
        }
        int fired = 0;
        for (; !m_pending.empty() && earliest()->dueMs <= timeMs; ++fired) {
            const Expiry expiry = *earliest();
            m_pending.erase(earliest());
            m_nowMs = std::max(m_nowMs, expiry.dueMs);
            fire(expiry);
        }
        m_nowMs = std::max(m_nowMs, timeMs);
        return fired;
    }
    int advance(u64 ms) { return advanceTo(m_nowMs + ms); }

    // Everything that was ever armed, in that order.
    const std::vector<Expiry>& armed() const { return m_armed; }
    std::size_t pending() const { return m_pending.size(); }

    void init() override {}
    u64 getTimestampNano() override { return m_nowMs * 1'000'000; }
    u64 getTimestampMicro() override { return m_nowMs * 1'000; }
    u64 getTimestampMs() override { return m_nowMs; }
    u64 getClockMs() override { return m_nowMs + daysToMs(1); }
    u64 getLastTimestampMs_Inaccurate(bool /*refresh*/) override { return m_nowMs + daysToMs(2); }
    // What a callback arms with a delay of 0 falls due a millisecond later, so that time goes on.
    void addTimer(Callback callback, Cookie cookie, u32 delayMs, bool once) override {
        const u64 leastMs = m_firing > 0 ? 1 : 0;
        m_armed.push_back(
            {callback, cookie, delayMs, once, m_nowMs + std::max<u64>(delayMs, leastMs)});
        m_pending.push_back(m_armed.back());
    }
    u64 getCurentThreadTickCount() override { return ticksNs(3); }
    u64 getCurentProcessTickCount() override { return ticksNs(4); }
    void setRealClockTime(u64 realTimeMs) override { m_realTimeAheadMs = realTimeMs - m_nowMs; }
    u64 getRealTimestampMs() override { return m_nowMs + m_realTimeAheadMs; }
    u64 getJiffies() override {
        return (m_nowMs + daysToMs(5)) * ITimer::JIFFIES_PER_SEC / OneSecondInMs;
    }
    bool utcStringToTm(const std::string& /*text*/, tm& /*result*/) override { return false; }

private:
    void fire(const Expiry& expiry) {
        struct Firing {
            explicit Firing(int& depth) : m_depth(++depth) {}
            ~Firing() { --m_depth; }
            int& m_depth;
        } firing(m_firing);
        expiry.callback(expiry.cookie);
        if (!expiry.once) {
            addTimer(expiry.callback, expiry.cookie, expiry.delayMs, expiry.once);
        }
    }

    u64 ticksNs(u64 daysAhead) const { return (m_nowMs + daysToMs(daysAhead)) * 1'000'000; }

    std::vector<Expiry>::iterator earliest() {
        const auto isDueEarlier = [](const Expiry& left, const Expiry& right) {
            return left.dueMs < right.dueMs;
        };
        return std::min_element(m_pending.begin(), m_pending.end(), isDueEarlier);
    }

    u64 m_nowMs = 0;
    int m_firing = 0; // callbacks that run, one within the other
    u64 m_realTimeAheadMs = daysToMs(6);
    std::vector<Expiry> m_armed;
    std::vector<Expiry> m_pending;
};
