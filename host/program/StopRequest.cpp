#include "host/program/StopRequest.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

sigset_t stopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

void check(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

} // namespace

StopRequest::StopRequest() {
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    m_signals = signalfd(-1, &signals, SFD_CLOEXEC);
    check(m_signals, "signalfd");
    m_requests = eventfd(0, EFD_CLOEXEC);
    check(m_requests, "eventfd");
}

StopRequest::~StopRequest() {
    ::close(m_signals);
    ::close(m_requests);
}

void StopRequest::request() {
    eventfd_write(m_requests, 1);
}

void StopRequest::wait() {
    std::array<pollfd, 2> sources{{{m_signals, POLLIN, 0}, {m_requests, POLLIN, 0}}};
    while (poll(sources.data(), sources.size(), -1) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "poll");
        }
    }
    if ((sources[0].revents & POLLIN) != 0) {
        signalfd_siginfo taken{};
        check(static_cast<int>(::read(m_signals, &taken, sizeof taken)), "read a signal");
        const sigset_t signals = stopSignals();
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
}
