#pragma once

#include "common/infra/Lock.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <optional>
#include <thread>

// Limits how long the program's end takes: calls `onDeadline` on a thread of its own if it still
// lives when the limit has passed. The thread is there from the construction on, so the end does
// not depend on getting one.
class ShutdownWatch {
public:
    // Throws std::system_error if there is no thread to be had.
    explicit ShutdownWatch(std::function<void()> onDeadline);
    ~ShutdownWatch();
    ShutdownWatch(const ShutdownWatch&) = delete;
    ShutdownWatch& operator=(const ShutdownWatch&) = delete;

    // The end begins now. Once, by one thread, which may then ask what is left of the limit.
    void begin(std::chrono::milliseconds limit);
    std::chrono::milliseconds left() const;

private:
    using Clock = std::chrono::steady_clock;

    void watch();

    const std::function<void()> m_onDeadline;
    mutable CheckedMutex m_mutex;
    std::condition_variable m_changed;
    std::optional<Clock::time_point> m_deadline ANALYTICS_GUARDED_BY(m_mutex);
    bool m_isOver ANALYTICS_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};
