#pragma once

#include "common/infra/Lock.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <string>
#include <thread>

// Tells a terminal on standard error what a wait is for: after two seconds, and every second from
// then on, on one line that is taken away at the end of the wait. The wait lasts from construction
// to destruction. Where there is no terminal, or no thread to be had, nothing is told.
class WaitNotice {
public:
    // `what` is called on a thread of the notice and must not throw.
    explicit WaitNotice(std::function<std::string()> what,
                        std::chrono::milliseconds after = std::chrono::seconds(2));
    ~WaitNotice();
    WaitNotice(const WaitNotice&) = delete;
    WaitNotice& operator=(const WaitNotice&) = delete;

private:
    using Clock = std::chrono::steady_clock;

    void tell(Clock::time_point next);
    bool isOverBy(Clock::time_point moment);

    const std::function<std::string()> m_what;
    CheckedMutex m_mutex;
    std::condition_variable m_ended;
    bool m_isOver ANALYTICS_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};
