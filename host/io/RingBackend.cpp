#include "common/infra/Lock.h"
#include "common/infra/Log.h"
#include "common/infra/Singleton.h"
#include "host/io/IoBackend.h"
#include "host/services/Clock.h"
#include "host/services/FileDescriptor.h"

#include <liburing.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace {

// I/Os that one system call submits. Storage works on one batch while the next is prepared; a batch
// of the whole queue would leave it idle between two batches.
constexpr std::size_t batchSize = 8;

// The wait before a kernel that is short of resources is asked again: at first, and at most.
constexpr int shortestWaitMs = 1;
constexpr int longestWaitMs = 100;

// The request behind a completion; null for the listening one.
IoRequest* requestOf(const io_uring_cqe& completion) {
    return static_cast<IoRequest*>(io_uring_cqe_get_data(&completion));
}

[[noreturn]] void throwErrno(int error, const char* what) {
    throw std::system_error(error, std::generic_category(), what);
}

std::string messageOf(int error) {
    return std::generic_category().message(error);
}

// What would make io_uring available.
const char* remedyOf(int error) {
    switch (error) {
    case ENOMEM:
        return "a higher 'ulimit -l' or a shallower queue allows it";
    case ENOSYS:
        return "a kernel that has it, and a seccomp profile that admits io_uring_setup, "
               "io_uring_enter and io_uring_register allow it";
    case EPERM:
    case EACCES:
        return "'sysctl kernel.io_uring_disabled=0', or a seccomp profile that admits "
               "io_uring_setup, io_uring_enter and io_uring_register, allows it";
    default:
        return "the kernel may have the resources for it at another time";
    }
}

[[noreturn]] void throwRefusal(int error, const char* call) {
    throw IoUringRefused(error, std::generic_category(),
                         "io_uring is refused (" + std::string(remedyOf(error)) + "): " + call);
}

// Whether the kernel may have the resources later.
bool isShortage(int result) {
    return result == -EAGAIN || result == -EBUSY;
}

// Whether the kernel has taken the submitted I/Os.
bool isTaken(int result) {
    if (result >= 0 || result == -EINTR) {
        return true;
    }
    if (isShortage(result)) {
        return false;
    }
    // The ring is broken, and the kernel may still write to any buffer.
    LogItem(LogModuleCommon, FatalLevel, __PRETTY_FUNCTION__, 3)
        << "io_uring failed: " << messageOf(-result) << std::endl;
    std::abort();
}

void initRing(io_uring& ring, u32 queueDepth) {
    // The best first: kernel 6.1 has the first, 5.19 the second.
    constexpr unsigned flavours[] = {IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN,
                                     IORING_SETUP_COOP_TASKRUN, 0};
    const unsigned entries = queueDepth + 1; // one for listening
    int error = 0;
    for (const unsigned flags : flavours) {
        error = -io_uring_queue_init(entries, &ring, flags);
        if (error != EINVAL) {
            break;
        }
    }
    if (error != 0) {
        throwRefusal(error, "io_uring_setup");
    }
}

// Makes each system call that the I/Os of the ring will make. A shortage that does not pass within
// a quarter of a second is a refusal like any other.
int tryRing(io_uring& ring, int file) {
    int result = io_uring_register_files(&ring, &file, 1);
    if (result < 0) {
        return result;
    }
    io_uring_prep_nop(io_uring_get_sqe(&ring));
    result = io_uring_submit_and_wait(&ring, 1);
    for (int waitMs = shortestWaitMs; isShortage(result) && waitMs <= longestWaitMs; waitMs *= 2) {
        poll(nullptr, 0, waitMs);
        result = io_uring_submit_and_wait(&ring, 1);
    }
    io_uring_cq_advance(&ring, io_uring_cq_ready(&ring));
    return result;
}

// A file of -1 is none.
void setUpRing(io_uring& ring, u32 queueDepth, int file) {
    initRing(ring, queueDepth);
    const int result = tryRing(ring, file);
    if (result < 0) {
        io_uring_queue_exit(&ring);
        throwRefusal(-result, "io_uring_register or io_uring_enter");
    }
}

} // namespace

void probeIoUring(u32 queueDepth) {
    io_uring ring{};
    setUpRing(ring, queueDepth, -1);
    io_uring_queue_exit(&ring);
}

namespace {

// The service's thread owns the ring: it alone submits and reaps. The kernel then does the work of
// a completion on that thread, when the thread asks for it, and the last submission of a turn also
// fetches completions. Other threads put their requests into the inbox, and wake the service if it
// may be asleep.
class RingBackend : public IoBackend {
public:
    void open(const IoEngine::Setup& setup) override;
    RcStatus submit(IoQueue& requests) override;
    void close() override;

private:
    // The threads that open and close.
    void makeWakeFd();
    void requestClose();

    // Any thread.
    void wake() const;

    // The service's thread.
    void serve(std::promise<void> opened);
    void openRing();
    void closeRing();
    bool registerBuffers();
    void takeInbox();
    std::size_t ready() const;
    void submitBatches();
    void prepareBatch();
    void prepareIo(IoRequest& request, u64 nowNs);
    bool isRegistered(const IoRequest& request) const;
    void listenForWake();
    void exchangeWithKernel();
    void awaitResources();
    void reap();
    void countAll(const io_uring_cqe* const* completions, unsigned number);
    void publishOldest();
    bool isDone() const { return m_closing && m_waiting.empty() && m_taken == 0; }

    // Synchronises itself.
    std::atomic<bool> m_accepting{false};

    // Made by the first open() and kept, because a submit() may still use it after a close().
    FileDescriptor m_wakeFd;

    // Fixed while the service is open.
    IoEngine::Setup m_setup;
    std::thread m_thread;

    CheckedMutex m_mutex;
    IoQueue m_inbox ANALYTICS_GUARDED_BY(m_mutex);
    bool m_closeRequested ANALYTICS_GUARDED_BY(m_mutex) = false;
    // The service has to be woken when something is put into the inbox.
    bool m_mayBeAsleep ANALYTICS_GUARDED_BY(m_mutex) = false;

    // The service's thread alone.
    __attribute__((tls_model(
        "initial-exec"))) inline static thread_local const RingBackend* servedHere = nullptr;
    io_uring m_ring{};
    IoQueue m_waiting;
    IoQueue m_inFlight; // submitted and not counted yet, the oldest first
    u32 m_taken = 0;    // of the queue depth: submitted and not reported yet
    std::optional<InFlightIo> m_oldest;
    int m_patienceMs = shortestWaitMs;
    u64 m_wakeCount = 0;
    bool m_buffersRegistered = false;
    bool m_closing = false;
};

void RingBackend::open(const IoEngine::Setup& setup) {
    makeWakeFd();
    m_setup = setup;
    std::promise<void> opened;
    std::future<void> result = opened.get_future();
    m_thread = std::thread(&RingBackend::serve, this, std::move(opened));
    try {
        result.get();
    } catch (...) {
        m_thread.join();
        throw;
    }
    m_accepting = true;
}

void RingBackend::close() {
    requestClose();
    m_thread.join();
    const CheckedLock lock(m_mutex);
    m_closeRequested = m_closing = false;
}

void RingBackend::makeWakeFd() {
    if (!m_wakeFd) {
        m_wakeFd = FileDescriptor(eventfd(0, EFD_CLOEXEC));
    }
    if (!m_wakeFd) {
        throwErrno(errno, "eventfd");
    }
}

void RingBackend::requestClose() {
    {
        const CheckedLock lock(m_mutex);
        m_accepting = false;
        m_closeRequested = true;
    }
    wake();
}

RcStatus RingBackend::submit(IoQueue& requests) {
    if (servedHere == this) { // from inside a completion: submitted when it has returned
        if (!m_accepting) {
            return RC_WRONG_OBJECT_STATE;
        }
        m_waiting.append(requests);
        return RC_SUCCESS;
    }
    bool mustWake = false;
    {
        const CheckedLock lock(m_mutex);
        if (!m_accepting) {
            return RC_WRONG_OBJECT_STATE;
        }
        mustWake = !requests.empty() && std::exchange(m_mayBeAsleep, false);
        m_inbox.append(requests);
    }
    if (mustWake) {
        wake();
    }
    return RC_SUCCESS;
}

void RingBackend::wake() const {
    // Fails only if the counter is at its maximum; the service then wakes anyway.
    eventfd_write(m_wakeFd.get(), 1);
}

void RingBackend::serve(std::promise<void> opened) {
    pthread_setname_np(pthread_self(), "aio");
    try {
        openRing();
    } catch (...) {
        opened.set_exception(std::current_exception());
        return;
    }
    servedHere = this;
    m_oldest.emplace(Singleton<AIO, AIO>::instance()->latency(), 0);
    opened.set_value();
    listenForWake();
    for (;;) {
        takeInbox();
        if (isDone()) {
            break;
        }
        submitBatches();
        prepareBatch();
        exchangeWithKernel();
        reap();
    }
    m_oldest.reset();
    servedHere = nullptr;
    closeRing();
}

void RingBackend::openRing() {
    setUpRing(m_ring, m_setup.queueDepth, m_setup.file);
    m_buffersRegistered = registerBuffers();
}

// The kernel destroys a ring some time after its exit. Until then it would hold the caller's file
// and buffers, so they are unregistered first.
void RingBackend::closeRing() {
    io_uring_unregister_files(&m_ring);
    if (m_buffersRegistered) {
        io_uring_unregister_buffers(&m_ring);
    }
    io_uring_queue_exit(&m_ring);
}

bool RingBackend::registerBuffers() {
    if (m_setup.buffers == nullptr) {
        return false;
    }
    const iovec memory{m_setup.buffers, m_setup.bufferBytes};
    const int error = -io_uring_register_buffers(&m_ring, &memory, 1);
    if (error != 0) {
        // Commonly the limit of locked memory. The kernel then maps the buffers for each I/O.
        LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
            << "I/O buffers are not registered: " << messageOf(error)
            << " bytes=" << m_setup.bufferBytes << std::endl;
    }
    return error == 0;
}

// Until the next takeInbox(), submitters must wake the service: it may be asleep in the kernel.
void RingBackend::takeInbox() {
    const CheckedLock lock(m_mutex);
    m_waiting.append(m_inbox);
    m_closing = m_closeRequested;
    m_mayBeAsleep = true;
}

// The number of I/Os that can be submitted now.
std::size_t RingBackend::ready() const {
    return std::min<std::size_t>(m_waiting.size(), m_setup.queueDepth - m_taken);
}

void RingBackend::submitBatches() {
    while (ready() >= batchSize) {
        prepareBatch();
        // I/Os that the kernel does not take stay in the ring for exchangeWithKernel().
        static_cast<void>(isTaken(io_uring_submit(&m_ring)));
    }
}

void RingBackend::prepareBatch() {
    std::size_t left = std::min(ready(), batchSize);
    if (left == 0) {
        return;
    }
    // One clock reading for the batch. A latency includes the time in which the I/Os before it are
    // prepared, some 20 ns each, and taken by the kernel, up to 1 us each.
    const u64 nowNs = monotonicNs();
    for (; left > 0; --left) {
        IoRequest& request = m_waiting.pop();
        prepareIo(request, nowNs);
        m_inFlight.push(request);
        ++m_taken;
    }
    publishOldest();
}

void RingBackend::prepareIo(IoRequest& request, u64 nowNs) {
    constexpr int registered = 0; // the index of the only file and of the only memory
    start(request, nowNs);
    const bool fixed = isRegistered(request);
    io_uring_sqe* sqe = io_uring_get_sqe(&m_ring); // there is room: the ring has an entry for each
    switch (request.operation) {
    case IoRequest::Read:
        fixed ? io_uring_prep_read_fixed(sqe, registered, request.buffer, request.length,
                                         request.offset, registered)
              : io_uring_prep_read(sqe, registered, request.buffer, request.length, request.offset);
        sqe->flags |= IOSQE_FIXED_FILE;
        break;
    case IoRequest::Write:
        fixed
            ? io_uring_prep_write_fixed(sqe, registered, request.buffer, request.length,
                                        request.offset, registered)
            : io_uring_prep_write(sqe, registered, request.buffer, request.length, request.offset);
        sqe->flags |= IOSQE_FIXED_FILE;
        break;
    case IoRequest::NoOp:
        io_uring_prep_nop(sqe);
        break;
    }
    io_uring_sqe_set_data(sqe, &request);
}

bool RingBackend::isRegistered(const IoRequest& request) const {
    const auto begin = reinterpret_cast<std::uintptr_t>(m_setup.buffers);
    const auto buffer = reinterpret_cast<std::uintptr_t>(request.buffer);
    return m_buffersRegistered && buffer >= begin &&
           buffer + request.length <= begin + m_setup.bufferBytes;
}

void RingBackend::listenForWake() {
    io_uring_sqe* sqe = io_uring_get_sqe(&m_ring);
    io_uring_prep_read(sqe, m_wakeFd.get(), &m_wakeCount, sizeof m_wakeCount, 0);
    io_uring_sqe_set_data(sqe, nullptr);
}

// Submits the prepared I/Os and sleeps until one has completed.
void RingBackend::exchangeWithKernel() {
    if (isTaken(io_uring_submit_and_wait(&m_ring, 1))) {
        m_patienceMs = shortestWaitMs;
    } else {
        awaitResources();
    }
}

// Waits for a completion, which frees resources, or for a time, since others may hold them. If the
// kernel cannot deliver completions either, waits again.
void RingBackend::awaitResources() {
    pollfd completion{m_ring.ring_fd, POLLIN, 0};
    if (poll(&completion, 1, m_patienceMs) > 0 && io_uring_get_events(&m_ring) < 0) {
        poll(nullptr, 0, m_patienceMs);
    }
    if (m_patienceMs < longestWaitMs && 2 * m_patienceMs >= longestWaitMs) {
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "the kernel lacks the resources for I/O and is asked again; msBetweenAttempts="
            << longestWaitMs << std::endl;
    }
    m_patienceMs = std::min(2 * m_patienceMs, longestWaitMs);
}

void RingBackend::publishOldest() {
    m_oldest->setStart(m_inFlight.empty() ? 0 : startNs(m_inFlight.front()));
}

void RingBackend::reap() {
    io_uring_cqe* completions[64];
    const unsigned count = io_uring_peek_batch_cqe(&m_ring, completions, std::size(completions));
    countAll(completions, count);
    for (unsigned i = 0; i < count; ++i) {
        if (IoRequest* request = requestOf(*completions[i])) {
            --m_taken;
            request->completed(*request, completions[i]->res);
            submitBatches();
        } else {
            listenForWake();
        }
    }
    io_uring_cq_advance(&m_ring, count);
}

// One clock reading for all completions that are there. A latency is too long by at most the time
// of the callbacks before, up to 64. All are counted before the first is reported: code that has
// seen an I/O complete finds it in the counters.
void RingBackend::countAll(const io_uring_cqe* const* completions, unsigned number) {
    AIO& aio = *Singleton<AIO, AIO>::instance();
    const u64 nowNs = monotonicNs();
    for (unsigned i = 0; i < number; ++i) {
        if (IoRequest* request = requestOf(*completions[i])) {
            count(aio, *request, completions[i]->res, nowNs);
            m_inFlight.remove(*request);
        }
    }
    publishOldest();
}

} // namespace

std::unique_ptr<IoBackend> makeRingBackend() {
    return std::make_unique<RingBackend>();
}
