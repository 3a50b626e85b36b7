#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <cstddef>
#include <memory>

// One I/O. The caller owns it and its buffer, and keeps both alive and unchanged from submit()
// until `completed` is called; then it may be used again, also from inside `completed`.
struct IoRequest {
    enum Operation : u32 {
        Read,
        Write,
        NoOp // goes the whole way but touches no storage
    };
    // Called on the engine's thread. `result` is the number of bytes moved, or a negative errno.
    // Must not throw and should be short: completions behind it wait.
    using Completed = void (*)(IoRequest& request, int result);

    Operation operation = Read;
    u32 length = 0; // bytes
    u64 offset = 0; // bytes from the start of the file
    void* buffer = nullptr;
    Completed completed = nullptr;
    u64 latencyNs = 0; // written by the engine before it calls `completed`

private:
    friend class IoEngine;
    IoRequest* m_next = nullptr;
    u64 m_handedOverNs = 0;
};

// Makes asynchronous reads and writes of one file and counts them in the process's AIO service,
// from the hand-over to the kernel until the completion is seen.
//
//     engine.open({fd, 32});
//     engine.submit(request); // any thread; `completed` is called on the engine's own
//     engine.close();         // waits for what was submitted
class IoEngine {
public:
    struct Options {
        int file = -1;           // open file descriptor; stays the caller's
        u32 queueDepth = 1;      // I/Os in the kernel at a time; more of them wait in order
        void* buffers = nullptr; // memory that holds the requests' buffers, to be registered with
        std::size_t bufferBytes = 0; // the kernel; null: none
    };

    IoEngine();
    ~IoEngine(); // closes
    IoEngine(const IoEngine&) = delete;
    IoEngine& operator=(const IoEngine&) = delete;

    // Starts the engine's thread. Throws std::system_error if the kernel refuses, std::logic_error
    // if the engine is open or the queue depth is not 1 to 32767.
    void open(const Options& options);
    // Submits I/Os, many in one batch. RC_WRONG_OBJECT_STATE, with nothing taken, unless open. Any
    // thread, also from inside a completion.
    RcStatus submit(IoRequest& request);
    RcStatus submit(IoRequest* const* requests, std::size_t count);
    // Refuses further I/Os, waits for those that were submitted, ends the thread. Not from inside a
    // completion.
    void close();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
