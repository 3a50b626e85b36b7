#include "host/program/StopRequest.h"

#include "common/infra/Defs.h"
#include "host/services/Clock.h"
#include "host/services/FileDescriptor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace {

constexpr std::array stopSignals = {SIGINT, SIGTERM, SIGHUP};
constexpr u64 sameSignalMs = 200;
constexpr int ownRequest = 255; // no signal

// What the signal handler knows. Its operations are all safe there. What has asked to stop, and
// when, is one value, so that a signal that comes at the same time sees both.
std::atomic<u64> stopReason{
    0}; // 0: nothing has; else the time in ms, and in the last byte the signal
std::atomic<bool> reopens{false};
std::atomic<bool> hungUp{false};
FileDescriptor wakeFd;

void ask(int signal) {
    u64 nothing = 0;
    const u64 reason = monotonicNs() / nsPerMs << 8U | static_cast<u64>(signal);
    if (stopReason.compare_exchange_strong(nothing, reason)) {
        eventfd_write(wakeFd.get(), 1);
    }
}

bool isTheSame(int signal, u64 reason) {
    return (reason & 0xffU) == static_cast<u64>(signal) &&
           monotonicNs() / nsPerMs - (reason >> 8U) <= sameSignalMs;
}

void onSignal(int signal) {
    const int savedErrno = errno;
    const u64 before = stopReason;
    if (before == 0 && signal == SIGHUP && reopens) {
        hungUp = true;
        eventfd_write(wakeFd.get(), 1);
    } else if (before == 0) {
        ask(signal);
    } else if (!isTheSame(signal, before)) {
        _exit(128 + signal);
    }
    errno = savedErrno;
}

bool staysIgnored(int signal) {
    struct sigaction current {};
    sigaction(signal, nullptr, &current);
    return signal != SIGTERM && current.sa_handler == SIG_IGN;
}

void setHandlers(void (*handler)(int)) {
    for (const int signal : stopSignals) {
        struct sigaction action {};
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        if (!staysIgnored(signal)) {
            sigaction(signal, &action, nullptr);
        }
    }
}

} // namespace

StopRequest::StopRequest(std::function<void()> hangUp) : m_hangUp(std::move(hangUp)) {
    wakeFd = FileDescriptor(eventfd(0, EFD_CLOEXEC));
    if (!wakeFd) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    stopReason = 0;
    hungUp = false;
    reopens = static_cast<bool>(m_hangUp);
    setHandlers(onSignal);
}

StopRequest::~StopRequest() {
    setHandlers(SIG_DFL);
    wakeFd = {};
}

void StopRequest::request() {
    ask(ownRequest);
}

void StopRequest::wait() {
    while (!isRequested()) {
        // poll() may return early on a signal; the loop checks the reason again.
        pollfd wake{wakeFd.get(), POLLIN, 0};
        eventfd_t wakes = 0;
        if (poll(&wake, 1, -1) > 0) {
            eventfd_read(wakeFd.get(), &wakes);
        }
        if (hungUp.exchange(false)) {
            m_hangUp();
        }
    }
}

bool StopRequest::isRequested() const {
    return stopReason != 0;
}

int StopRequest::signal() const {
    const int signal = static_cast<int>(stopReason & 0xffU);
    return signal == ownRequest ? 0 : signal;
}
