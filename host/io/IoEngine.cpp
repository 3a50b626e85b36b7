#include "host/io/IoEngine.h"

#include "common/infra/AIO.h"
#include "common/infra/Log.h"
#include "common/infra/Singleton.h"
#include "host/services/Clock.h"

#include <liburing.h>
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
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace {

// I/Os that one system call hands over. Storage that is given its whole queue in one go answers it
// in one go, and idles until the next: in parts, it works on the first while the next is prepared.
constexpr std::size_t batchSize = 8;

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

// Looks at what the kernel answered when I/Os were handed over to it.
void checkRing(int result) {
    if (result >= 0 || result == -EINTR || result == -EAGAIN || result == -EBUSY) {
        return; // short of resources: what has completed makes room, and the rest is tried again
    }
    // The ring itself is broken, and with it every buffer that the kernel may still write to.
    LogItem(LogModuleCommon, FatalLevel, __PRETTY_FUNCTION__, 3)
        << "io_uring failed: " << messageOf(-result) << std::endl;
    std::abort();
}

void check(const IoEngine::Options& options) {
    // io_uring's largest ring has 2^15 entries, and one is for listening.
    constexpr u32 deepest = (u32{1} << 15U) - 1;
    if (options.queueDepth == 0 || options.queueDepth > deepest) {
        throw std::invalid_argument("IoEngine::open: the queue depth must be 1 to " +
                                    std::to_string(deepest) + ", not " +
                                    std::to_string(options.queueDepth));
    }
    if (options.file < 0) { // io_uring would take -1 for a place to be filled later
        throwErrno(EBADF, "IoEngine::open: the file is not open");
    }
}

} // namespace

// The ring belongs to one thread, which alone submits and reaps: the kernel then does the work of a
// completion on that thread, when it asks for it, and the system call that hands over the last of a
// batch also fetches completions. Other threads leave their requests in the inbox and wake the
// service if it may be asleep.
struct IoEngine::Impl {
    Impl() = default;

    ~Impl() {
        if (wakeFd >= 0) {
            ::close(wakeFd);
        }
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // First in, first out, linked through the requests: queueing allocates nothing.
    struct Queue {
        bool empty() const { return head == nullptr; }

        void push(IoRequest& request) {
            request.m_next = nullptr;
            (empty() ? head : tail->m_next) = &request;
            tail = &request;
            ++size;
        }

        IoRequest& pop() {
            IoRequest& request = *head;
            head = request.m_next;
            --size;
            return request;
        }

        void append(Queue& other) {
            if (other.empty()) {
                return;
            }
            (empty() ? head : tail->m_next) = other.head;
            tail = other.tail;
            size += other.size;
            other = {};
        }

        IoRequest* head = nullptr;
        IoRequest* tail = nullptr;
        std::size_t size = 0;
    };

    // The threads that open and close.
    void makeWakeFd();
    void requestClose();

    // Any thread.
    RcStatus submit(IoRequest* const* requests, std::size_t count);
    void wake() const;

    // The service's thread.
    void serve(std::promise<void> opened);
    void openRing();
    void closeRing();
    bool registerBuffers();
    void takeInbox();
    std::size_t ready() const;
    void handOverBatches();
    void prepareBatch();
    void prepareIo(IoRequest& request, u64 nowNs);
    bool isRegistered(const IoRequest& request) const;
    void listenForWake();
    void exchangeWithKernel();
    void reap();
    bool isDone() const { return closing && waiting.empty() && inFlight == 0; }

    // Synchronises itself.
    std::atomic<bool> accepting{false};

    // Made by the first open() and kept: a submit() that saw the service open may wake it only
    // after a close().
    int wakeFd = -1;

    // Fixed while the service is open.
    Options options;
    std::thread thread;

    // Under the mutex.
    std::mutex mutex;
    Queue inbox;
    bool closeRequested = false;
    bool mayBeAsleep = false; // the service has to be woken when something is put into the inbox

    // The service's thread alone.
    __attribute__((tls_model("initial-exec"))) inline static thread_local const Impl* servedHere =
        nullptr;
    io_uring ring{};
    Queue waiting;
    u32 inFlight = 0;
    u64 wakeCount = 0;
    bool buffersRegistered = false;
    bool closing = false;
};

IoEngine::IoEngine() : m_impl(std::make_unique<Impl>()) {}

IoEngine::~IoEngine() {
    close();
}

void IoEngine::open(const Options& options) {
    if (m_impl->thread.joinable()) {
        throw std::logic_error("IoEngine::open: already open");
    }
    check(options);
    m_impl->makeWakeFd();
    m_impl->options = options;
    std::promise<void> opened;
    std::future<void> result = opened.get_future();
    m_impl->thread = std::thread(&Impl::serve, m_impl.get(), std::move(opened));
    try {
        result.get();
    } catch (...) {
        m_impl->thread.join();
        throw;
    }
    m_impl->accepting = true;
}

RcStatus IoEngine::submit(IoRequest& request) {
    IoRequest* const requests[] = {&request};
    return submit(requests, 1);
}

RcStatus IoEngine::submit(IoRequest* const* requests, std::size_t count) {
    return m_impl->submit(requests, count);
}

void IoEngine::close() {
    if (!m_impl->thread.joinable()) {
        return;
    }
    m_impl->requestClose();
    m_impl->thread.join();
    m_impl->closeRequested = m_impl->closing = false;
}

void IoEngine::Impl::makeWakeFd() {
    if (wakeFd < 0) {
        wakeFd = eventfd(0, EFD_CLOEXEC);
    }
    if (wakeFd < 0) {
        throwErrno(errno, "eventfd");
    }
}

void IoEngine::Impl::requestClose() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        accepting = false;
        closeRequested = true;
    }
    wake();
}

RcStatus IoEngine::Impl::submit(IoRequest* const* requests, std::size_t count) {
    Queue batch;
    for (std::size_t i = 0; i < count; ++i) {
        batch.push(*requests[i]);
    }
    if (servedHere == this) { // from inside a completion: handed over when the completions are done
        if (!accepting) {
            return RC_WRONG_OBJECT_STATE;
        }
        waiting.append(batch);
        return RC_SUCCESS;
    }
    bool mustWake = false;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (!accepting) {
            return RC_WRONG_OBJECT_STATE;
        }
        mustWake = count > 0 && std::exchange(mayBeAsleep, false);
        inbox.append(batch);
    }
    if (mustWake) {
        wake();
    }
    return RC_SUCCESS;
}

void IoEngine::Impl::wake() const {
    // Can only fail when the counter is at its top, and then the service is about to wake anyway.
    eventfd_write(wakeFd, 1);
}

void IoEngine::Impl::serve(std::promise<void> opened) {
    pthread_setname_np(pthread_self(), "aio");
    try {
        openRing();
    } catch (...) {
        opened.set_exception(std::current_exception());
        return;
    }
    servedHere = this;
    opened.set_value();
    listenForWake();
    for (;;) {
        takeInbox();
        if (isDone()) {
            break;
        }
        handOverBatches();
        prepareBatch();
        exchangeWithKernel();
        reap();
    }
    servedHere = nullptr;
    closeRing();
}

void IoEngine::Impl::openRing() {
    // The best that the running kernel offers: 6.1 has the first, 5.19 the second.
    constexpr unsigned flavours[] = {IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN,
                                     IORING_SETUP_COOP_TASKRUN, 0};
    const unsigned entries = options.queueDepth + 1; // one for listening
    int error = 0;
    for (const unsigned flags : flavours) {
        error = -io_uring_queue_init(entries, &ring, flags);
        if (error != EINVAL) {
            break;
        }
    }
    if (error != 0) {
        throwErrno(
            error,
            "cannot set up io_uring (containers often forbid it, and it needs some locked memory)");
    }
    error = -io_uring_register_files(&ring, &options.file, 1);
    if (error != 0) {
        io_uring_queue_exit(&ring);
        throwErrno(error, "io_uring cannot take the file");
    }
    buffersRegistered = registerBuffers();
}

// The kernel takes a ring apart some time after its end. What was registered is the caller's, who
// may want to unlock the file or to unmount its disk, so that is given back first.
void IoEngine::Impl::closeRing() {
    io_uring_unregister_files(&ring);
    if (buffersRegistered) {
        io_uring_unregister_buffers(&ring);
    }
    io_uring_queue_exit(&ring);
}

bool IoEngine::Impl::registerBuffers() {
    if (options.buffers == nullptr) {
        return false;
    }
    const iovec memory{options.buffers, options.bufferBytes};
    const int error = -io_uring_register_buffers(&ring, &memory, 1);
    if (error != 0) {
        // Commonly the limit of locked memory. The kernel then maps the buffers for each I/O.
        LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
            << "I/O buffers are not registered: " << messageOf(error)
            << " bytes=" << options.bufferBytes << std::endl;
    }
    return error == 0;
}

// From here on until the next look into the inbox, whoever fills it has to wake the service: it may
// by then be asleep in the kernel.
void IoEngine::Impl::takeInbox() {
    const std::lock_guard<std::mutex> lock(mutex);
    waiting.append(inbox);
    closing = closeRequested;
    mayBeAsleep = true;
}

// The I/Os that can be handed over now.
std::size_t IoEngine::Impl::ready() const {
    return std::min<std::size_t>(waiting.size, options.queueDepth - inFlight);
}

void IoEngine::Impl::handOverBatches() {
    while (ready() >= batchSize) {
        prepareBatch();
        checkRing(io_uring_submit(&ring));
    }
}

void IoEngine::Impl::prepareBatch() {
    std::size_t left = std::min(ready(), batchSize);
    if (left == 0) {
        return;
    }
    // One clock reading for the batch: a latency is too long by the time in which the I/Os before
    // it are prepared, some 20 ns each, and taken by the kernel, up to 1 us each.
    const u64 nowNs = monotonicNs();
    for (; left > 0; --left) {
        prepareIo(waiting.pop(), nowNs);
        ++inFlight;
    }
}

void IoEngine::Impl::prepareIo(IoRequest& request, u64 nowNs) {
    constexpr int registered = 0; // the index of the only file and of the only memory
    request.m_handedOverNs = nowNs;
    const bool fixed = isRegistered(request);
    io_uring_sqe* sqe = io_uring_get_sqe(&ring); // there is room: the ring has an entry for each
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

bool IoEngine::Impl::isRegistered(const IoRequest& request) const {
    const auto begin = reinterpret_cast<std::uintptr_t>(options.buffers);
    const auto buffer = reinterpret_cast<std::uintptr_t>(request.buffer);
    return buffersRegistered && buffer >= begin &&
           buffer + request.length <= begin + options.bufferBytes;
}

void IoEngine::Impl::listenForWake() {
    io_uring_sqe* sqe = io_uring_get_sqe(&ring);
    io_uring_prep_read(sqe, wakeFd, &wakeCount, sizeof wakeCount, 0);
    io_uring_sqe_set_data(sqe, nullptr);
}

// Hands over what was prepared and sleeps until something has completed.
void IoEngine::Impl::exchangeWithKernel() {
    checkRing(io_uring_submit_and_wait(&ring, 1));
}

void IoEngine::Impl::reap() {
    AIO& aio = *Singleton<AIO, AIO>::instance();
    io_uring_cqe* completions[64];
    const unsigned count = io_uring_peek_batch_cqe(&ring, completions, std::size(completions));
    {
        // One clock reading for all that is there: none of it completed later, and a latency is too
        // long at most by the time in which this thread reported the completions before, up to 64
        // callbacks. And all is counted before any of it is reported: who has seen an I/O complete
        // finds it in the counters.
        const u64 nowNs = monotonicNs();
        for (unsigned i = 0; i < count; ++i) {
            if (IoRequest* request = requestOf(*completions[i])) {
                request->latencyNs = nowNs - request->m_handedOverNs;
                completions[i]->res < 0 ? aio.countFailedIo(request->latencyNs)
                                        : aio.countIo(request->latencyNs);
            }
        }
    }
    for (unsigned i = 0; i < count; ++i) {
        if (IoRequest* request = requestOf(*completions[i])) {
            --inFlight;
            request->completed(*request, completions[i]->res);
            handOverBatches();
        } else {
            listenForWake();
        }
    }
    io_uring_cq_advance(&ring, count);
}
