#include "host/io/IoEngine.h"

#include "common/infra/AIO.h"
#include "common/infra/Log.h"
#include "common/infra/Singleton.h"
#include "host/io/IoBackend.h"
#include "host/io/IoQueue.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

void checkDepth(u32 queueDepth) {
    // io_uring's largest ring has 2^15 entries, and one is for listening.
    constexpr u32 deepest = (u32{1} << 15U) - 1;
    if (queueDepth == 0 || queueDepth > deepest) {
        throw std::invalid_argument("IoEngine::open: the queue depth must be 1 to " +
                                    std::to_string(deepest) + ", not " +
                                    std::to_string(queueDepth));
    }
}

void check(const IoEngine::Setup& setup) {
    checkDepth(setup.queueDepth);
    if (setup.file < 0) { // io_uring would take -1 for a place to be filled later
        throw std::system_error(EBADF, std::generic_category(),
                                "IoEngine::open: the file is not open");
    }
}

void sayThatThreadsServe(const IoUringRefused& reason) {
    LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
        << "threads make the I/Os: " << reason.what() << std::endl;
}

} // namespace

IoEngine::Kind IoEngine::available(Kind kind, u32 queueDepth) {
    checkDepth(queueDepth);
    if (kind == Kind::Threads) {
        return kind;
    }
    try {
        probeIoUring(queueDepth);
    } catch (const IoUringRefused& reason) {
        if (kind == Kind::IoUring) {
            throw;
        }
        sayThatThreadsServe(reason);
        return Kind::Threads;
    }
    return kind;
}

IoEngine::IoEngine() : m_ring(makeRingBackend()), m_pool(makePoolBackend()) {}

IoEngine::~IoEngine() {
    close();
}

void IoEngine::open(const Setup& setup) {
    if (m_open != nullptr) {
        throw std::logic_error("IoEngine::open: already open");
    }
    check(setup);
    Singleton<AIO, AIO>::instance(); // made here, where a failure can be passed on
    setup.kind == Kind::Automatic ? openAutomatic(setup) : openAs(setup.kind, setup);
}

void IoEngine::openAutomatic(const Setup& setup) {
    try {
        openAs(Kind::IoUring, setup);
    } catch (const IoUringRefused& reason) {
        sayThatThreadsServe(reason);
        openAs(Kind::Threads, setup);
    }
}

void IoEngine::openAs(Kind kind, const Setup& setup) {
    IoBackend& backend = kind == Kind::IoUring ? *m_ring : *m_pool;
    backend.open(setup);
    m_kind = kind;
    m_open = &backend;
}

RcStatus IoEngine::submit(IoRequest& request) {
    IoRequest* const requests[] = {&request};
    return submit(requests, 1);
}

RcStatus IoEngine::submit(IoRequest* const* requests, std::size_t count) {
    IoBackend* const backend = m_open;
    if (backend == nullptr) {
        return RC_WRONG_OBJECT_STATE;
    }
    IoQueue batch;
    for (std::size_t i = 0; i < count; ++i) {
        batch.push(*requests[i]);
    }
    return backend->submit(batch);
}

void IoEngine::close() {
    if (m_open == nullptr) {
        return;
    }
    m_open.load()->close();
    m_open = nullptr;
}

IoEngine::Kind IoEngine::kind() const {
    return m_kind;
}
