#include "host/program/WaitNotice.h"

#include <pthread.h>
#include <unistd.h>

#include <cstddef>
#include <iostream>
#include <new>
#include <system_error>
#include <utility>

namespace {

constexpr std::size_t width = 79;

void show(std::string line) {
    line.resize(width, ' ');
    std::cerr << line << "\r" << std::flush;
}

} // namespace

WaitNotice::WaitNotice(std::function<std::string()> what, std::chrono::milliseconds after)
    : m_what(std::move(what)) {
    if (isatty(STDERR_FILENO) != 1) {
        return;
    }
    try {
        m_thread = std::thread(&WaitNotice::tell, this, Clock::now() + after);
    } catch (const std::system_error&) {
        return; // what is waited for does not depend on it
    }
}

WaitNotice::~WaitNotice() {
    {
        const CheckedLock lock(m_mutex);
        m_isOver = true;
    }
    m_ended.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void WaitNotice::tell(Clock::time_point next) {
    pthread_setname_np(pthread_self(), "notice");
    bool isShown = false;
    try {
        for (; !isOverBy(next); next += std::chrono::seconds(1)) {
            show("analytics-host: " + m_what());
            isShown = true;
        }
        if (isShown) {
            show("");
        }
    } catch (const std::bad_alloc&) { // nothing depends on it
        return;
    }
}

bool WaitNotice::isOverBy(Clock::time_point moment) {
    CheckedLock lock(m_mutex);
    while (!m_isOver && m_ended.wait_until(lock, moment) == std::cv_status::no_timeout) {
    }
    return m_isOver;
}
