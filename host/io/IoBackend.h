#pragma once

#include "common/infra/AIO.h"
#include "common/infra/Export.h"
#include "host/io/IoEngine.h"
#include "host/io/IoQueue.h"

#include <cstddef>
#include <memory>
#include <system_error>

// One way for an IoEngine's requests to reach the kernel. The operations do what the engine's do.
// The engine checks the setup, and opens a backend only while it is closed.
class ANALYTICS_TAG IoBackend {
public:
    IoBackend() = default;
    virtual ~IoBackend() = default; // must be closed by then
    IoBackend(const IoBackend&) = delete;
    IoBackend& operator=(const IoBackend&) = delete;

    virtual void open(const IoEngine::Setup& setup) = 0;
    virtual RcStatus submit(IoQueue& requests) = 0;
    virtual void close() = 0;

protected:
    static void start(IoRequest& request, u64 nowNs) { request.m_submittedNs = nowNs; }
    static u64 startNs(const IoRequest& request) { return request.m_submittedNs; }

    static void count(AIO& aio, IoRequest& request, int result, u64 nowNs) {
        request.latencyNs = nowNs - request.m_submittedNs;
        request.failed = result < 0 || (request.operation != IoRequest::NoOp &&
                                        static_cast<u32>(result) < request.length);
        request.failed ? aio.countFailedIo(request.latencyNs) : aio.countIo(request.latencyNs);
    }
};

// io_uring is not available here. The message says why, and what would allow it.
class ANALYTICS_TAG IoUringRefused : public std::system_error {
public:
    using std::system_error::system_error;
};

// Throws IoUringRefused if a ring of this depth is not available.
ANALYTICS_TAG void probeIoUring(u32 queueDepth);

// The first throws IoUringRefused at open().
ANALYTICS_TAG std::unique_ptr<IoBackend> makeRingBackend();
ANALYTICS_TAG std::unique_ptr<IoBackend> makePoolBackend();
