#include "common/infra/Lock.h"
#include "common/infra/Singleton.h"
#include "host/io/IoBackend.h"
#include "host/services/Clock.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Each thread costs the kernel some 20 KiB, and each I/O costs a context switch. For a disk that
// gains from a deeper queue, the context switches are the limit.
constexpr u32 mostThreads = 64;

// Threads that make one I/O at a time. Each takes the next from a common queue, and sleeps while it
// is empty. Requests that a completion submits are queued when it returns, and its thread then
// takes the first of the queue itself, so a steady load wakes no thread.
class PoolBackend : public IoBackend {
public:
    void open(const IoEngine::Setup& setup) override;
    RcStatus submit(IoQueue& requests) override;
    void close() override;

private:
    void startThreads(u32 count);
    void joinThreads();

    // The threads of the pool.
    void serve();
    IoRequest* next(IoQueue& submitted);
    void sleep(CheckedLock& lock) ANALYTICS_REQUIRES(m_mutex);
    int run(IoRequest& request, InFlightIo& inFlight) const;
    int move(const IoRequest& request) const;
    IoQueue report(IoRequest& request, int result);

    // How many more threads have to be woken. They count as woken from then on.
    std::size_t claimSleepers() ANALYTICS_REQUIRES(m_mutex);
    void wake(std::size_t threads);

    std::atomic<bool> m_accepting{false}; // changes under the mutex

    // Fixed while open.
    int m_file = -1;
    bool m_isStream = false; // a pipe, say, which has no offsets
    std::vector<std::thread> m_threads;

    std::condition_variable m_changed; // a request to take, or the end
    CheckedMutex m_mutex;
    IoQueue m_waiting ANALYTICS_GUARDED_BY(m_mutex);
    std::size_t m_asleep ANALYTICS_GUARDED_BY(m_mutex) = 0; // threads
    std::size_t m_woken ANALYTICS_GUARDED_BY(m_mutex) = 0;  // notified, but still counted asleep
    bool m_closing ANALYTICS_GUARDED_BY(m_mutex) = false;

    CheckedMutex m_reporting;                              // held while a completion is reported
    IoQueue m_submitted ANALYTICS_GUARDED_BY(m_reporting); // from inside the completion

    __attribute__((tls_model(
        "initial-exec"))) inline static thread_local const PoolBackend* reportsHere = nullptr;
};

void PoolBackend::open(const IoEngine::Setup& setup) {
    m_file = setup.file;
    m_isStream = lseek(m_file, 0, SEEK_CUR) < 0 && errno == ESPIPE;
    startThreads(std::min(setup.queueDepth, mostThreads));
    const CheckedLock lock(m_mutex);
    m_accepting = true;
}

void PoolBackend::startThreads(u32 count) {
    try {
        while (m_threads.size() < count) {
            m_threads.emplace_back(&PoolBackend::serve, this);
        }
    } catch (...) {
        joinThreads();
        throw;
    }
}

RcStatus PoolBackend::submit(IoQueue& requests) {
    if (reportsHere == this) {
        m_reporting.assumeHeld();
        if (!m_accepting) {
            return RC_WRONG_OBJECT_STATE;
        }
        m_submitted.append(requests);
        return RC_SUCCESS;
    }
    std::size_t needed = 0;
    {
        const CheckedLock lock(m_mutex);
        if (!m_accepting) {
            return RC_WRONG_OBJECT_STATE;
        }
        m_waiting.append(requests);
        needed = claimSleepers();
    }
    wake(needed);
    return RC_SUCCESS;
}

void PoolBackend::close() {
    joinThreads();
}

void PoolBackend::joinThreads() {
    {
        const CheckedLock lock(m_mutex);
        m_accepting = false;
        m_closing = true;
    }
    m_changed.notify_all();
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    m_threads.clear();
    const CheckedLock lock(m_mutex);
    m_closing = false;
    m_woken = 0;
}

std::size_t PoolBackend::claimSleepers() {
    const std::size_t wanted = std::min(m_waiting.size(), m_asleep);
    const std::size_t more = wanted > m_woken ? wanted - m_woken : 0;
    m_woken += more;
    return more;
}

void PoolBackend::wake(std::size_t threads) {
    for (; threads > 0; --threads) {
        m_changed.notify_one();
    }
}

void PoolBackend::serve() {
    pthread_setname_np(pthread_self(), "aio");
    InFlightIo inFlight(Singleton<AIO, AIO>::instance()->latency(), 0);
    IoQueue submitted;
    while (IoRequest* request = next(submitted)) {
        const int result = run(*request, inFlight);
        submitted = report(*request, result);
    }
}

// The next request; null at the end. First queues what the last completion submitted.
IoRequest* PoolBackend::next(IoQueue& submitted) {
    CheckedLock lock(m_mutex);
    m_waiting.append(submitted);
    while (m_waiting.empty()) {
        if (m_closing) {
            return nullptr;
        }
        sleep(lock);
    }
    IoRequest& request = m_waiting.pop();
    const std::size_t needed = claimSleepers();
    lock.unlock();
    wake(needed);
    return &request;
}

void PoolBackend::sleep(CheckedLock& lock) {
    ++m_asleep;
    m_changed.wait(lock);
    --m_asleep;
    m_woken -= m_woken > 0 ? 1 : 0;
}

// Counts the I/O before removing it from the I/Os in flight, so that a reading sees it in at least
// one of the two.
int PoolBackend::run(IoRequest& request, InFlightIo& inFlight) const {
    const u64 nowNs = monotonicNs();
    start(request, nowNs);
    inFlight.setStart(nowNs);
    const int result = move(request);
    count(*Singleton<AIO, AIO>::instance(), request, result, monotonicNs());
    inFlight.setStart(0);
    return result;
}

// The result is in io_uring's form. A call that a signal interrupts is repeated.
int PoolBackend::move(const IoRequest& request) const {
    const auto offset = static_cast<off_t>(request.offset);
    ssize_t moved = 0;
    do {
        switch (request.operation) {
        case IoRequest::Read:
            moved = m_isStream ? ::read(m_file, request.buffer, request.length)
                               : ::pread(m_file, request.buffer, request.length, offset);
            break;
        case IoRequest::Write:
            moved = m_isStream ? ::write(m_file, request.buffer, request.length)
                               : ::pwrite(m_file, request.buffer, request.length, offset);
            break;
        case IoRequest::NoOp:
            break;
        }
    } while (moved < 0 && errno == EINTR);
    return static_cast<int>(moved < 0 ? -errno : moved);
}

// One completion at a time, whichever thread has made the I/O. Returns what it submitted.
IoQueue PoolBackend::report(IoRequest& request, int result) {
    const CheckedLock lock(m_reporting);
    reportsHere = this;
    request.completed(request, result);
    reportsHere = nullptr;
    return std::exchange(m_submitted, {});
}

} // namespace

std::unique_ptr<IoBackend> makePoolBackend() {
    return std::make_unique<PoolBackend>();
}
