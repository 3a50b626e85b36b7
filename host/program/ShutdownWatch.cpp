#include "host/program/ShutdownWatch.h"

#include <algorithm>
#include <utility>

ShutdownWatch::ShutdownWatch(std::chrono::milliseconds limit, std::function<void()> onDeadline)
    : m_deadline(Clock::now() + limit),
      m_onDeadline(std::move(onDeadline)),
      m_thread(&ShutdownWatch::watch, this) {}

ShutdownWatch::~ShutdownWatch() {
    {
        const CheckedLock lock(m_mutex);
        m_isOver = true;
    }
    m_ended.notify_all();
    m_thread.join();
}

std::chrono::milliseconds ShutdownWatch::left() const {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - Clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

void ShutdownWatch::watch() {
    CheckedLock lock(m_mutex);
    const auto isOver = [this] {
        m_mutex.assumeHeld();
        return m_isOver;
    };
    if (!m_ended.wait_until(lock, m_deadline, isOver)) {
        m_onDeadline();
    }
}
