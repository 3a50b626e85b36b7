#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Lock.h"

#include <chrono>
#include <condition_variable>
#include <utility>

// One thread waits; others wake it. A wake-up that comes while nobody waits ends the next
// wait. Any thread.
class ANALYTICS_TAG Wakeup {
public:
    static constexpr u64 never = ~u64{0};

    void wake() {
        {
            const CheckedLock lock(m_mutex);
            m_isDue = true;
        }
        m_changed.notify_one();
    }

    // Blocks until a wake-up or a moment of the monotonic clock, in nanoseconds. True: a wake-up.
    bool waitUntil(u64 momentNs) {
        CheckedLock lock(m_mutex);
        const auto isDue = [this] {
            m_mutex.assumeHeld();
            return m_isDue;
        };
        if (momentNs == never) {
            m_changed.wait(lock, isDue);
        } else {
            m_changed.wait_until(lock, Moment(std::chrono::nanoseconds(momentNs)), isDue);
        }
        return std::exchange(m_isDue, false);
    }

private:
    using Moment = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;

    CheckedMutex m_mutex;
    std::condition_variable m_changed;
    bool m_isDue ANALYTICS_GUARDED_BY(m_mutex) = false;
};
