#include "host/program/ShutdownWatch.h"

#include <algorithm>
#include <utility>

ShutdownWatch::ShutdownWatch(std::function<void()> onDeadline)
    : m_onDeadline(std::move(onDeadline)), m_thread(&ShutdownWatch::watch, this) {}

ShutdownWatch::~ShutdownWatch() {
    {
        const CheckedLock lock(m_mutex);
        m_isOver = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void ShutdownWatch::begin(std::chrono::milliseconds limit) {
    {
        const CheckedLock lock(m_mutex);
        m_deadline = Clock::now() + limit;
    }
    m_changed.notify_all();
}

std::chrono::milliseconds ShutdownWatch::left() const {
    const CheckedLock lock(m_mutex);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        m_deadline.value_or(Clock::now()) - Clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

void ShutdownWatch::watch() {
    CheckedLock lock(m_mutex);
    while (!m_isOver && !m_deadline) {
        m_changed.wait(lock);
    }
    while (!m_isOver) {
        if (m_changed.wait_until(lock, *m_deadline) == std::cv_status::timeout && !m_isOver) {
            lock.unlock();
            m_onDeadline();
            return;
        }
    }
}
