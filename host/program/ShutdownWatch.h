#pragma once

#include "common/infra/Lock.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <thread>

// Sees to it that the program's end takes no longer than it may: calls `onDeadline` on a thread of
// its own if it still lives then.
class ShutdownWatch {
public:
    ShutdownWatch(std::chrono::milliseconds limit, std::function<void()> onDeadline);
    ~ShutdownWatch();
    ShutdownWatch(const ShutdownWatch&) = delete;
    ShutdownWatch& operator=(const ShutdownWatch&) = delete;

    // What is left of the time.
    std::chrono::milliseconds left() const;

private:
    using Clock = std::chrono::steady_clock;

    void watch();

    const Clock::time_point m_deadline;
    const std::function<void()> m_onDeadline;
    CheckedMutex m_mutex;
    std::condition_variable m_ended;
    bool m_isOver ANALYTICS_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};
