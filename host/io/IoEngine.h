#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <atomic>
#include <cstddef>
#include <memory>

class ANALYTICS_TAG IoBackend;
class ANALYTICS_TAG IoQueue;

// One I/O. The caller owns it and its buffer, and keeps both alive and unchanged from submit()
// until `completed` is called; then it may be used again, also from inside `completed`.
struct ANALYTICS_TAG IoRequest {
    enum Operation : u32 {
        Read,
        Write,
        NoOp // goes the whole way but touches no storage
    };
    // Called on a thread of the engine, for one request at a time. `result` is the number of bytes
    // moved or a negative errno; nothing is tried again. Must not throw and should be short:
    // completions behind it wait.
    using Completed = void (*)(IoRequest& request, int result);

    Operation operation = Read;
    u32 length = 0; // bytes
    u64 offset = 0; // bytes from the start of the file
    void* buffer = nullptr;
    Completed completed = nullptr;
    // Written by the engine before it calls `completed`.
    u64 latencyNs = 0;
    bool failed = false; // an error, or fewer bytes than `length`; it is counted as such

private:
    friend class IoBackend;
    friend class IoQueue;
    IoRequest* m_previous = nullptr;
    IoRequest* m_next = nullptr;
    u64 m_submittedNs = 0;
};

// Makes asynchronous reads and writes of one file and counts them in the process's AIO service,
// from the submission to the kernel until the completion is seen. AIO also knows the oldest I/O in
// flight, so a stall shows while it lasts.
//
//     engine.open({fd, 32});
//     engine.submit(request); // any thread; `completed` is called on one of the engine's
//     engine.close();         // waits for what was submitted
class ANALYTICS_EXPORT IoEngine {
public:
    // How the I/Os reach the kernel.
    enum class Kind {
        Automatic, // io_uring, or threads where it is refused
        IoUring,
        Threads // that make one I/O at a time, up to 64 of them
    };
    struct Setup {
        int file = -1;               // open file descriptor; stays the caller's
        u32 queueDepth = 1;          // I/Os in the kernel at a time; more of them wait in order
        void* buffers = nullptr;     // memory that holds the requests' buffers, for io_uring to
        std::size_t bufferBytes = 0; // register with the kernel; null: none
        Kind kind = Kind::Automatic;
    };

    // The kind that open() would use here, found by setting io_uring up for a moment. If io_uring
    // is refused, Automatic becomes Threads, and one log line tells the reason and the remedy.
    // Throws as open() does.
    static Kind available(Kind kind, u32 queueDepth);

    IoEngine();
    ~IoEngine(); // closes
    IoEngine(const IoEngine&) = delete;
    IoEngine& operator=(const IoEngine&) = delete;

    // Starts the engine's threads. Throws std::system_error if the kernel refuses: io_uring where
    // that was asked for, the file, or a thread. Throws std::logic_error if the engine is open or
    // the queue depth is not 1 to 32767.
    void open(const Setup& setup);
    // Submits I/Os, many in one batch. RC_WRONG_OBJECT_STATE, with nothing taken, unless open. Any
    // thread, also from inside a completion.
    RcStatus submit(IoRequest& request);
    RcStatus submit(IoRequest* const* requests, std::size_t count);
    // Refuses further I/Os, waits for those that were submitted, ends the threads. Not from inside
    // a completion.
    void close();

    // The kind that the last open() chose; Automatic before it. Any thread.
    Kind kind() const;

private:
    void openAutomatic(const Setup& setup);
    void openAs(Kind kind, const Setup& setup);

    // Kept when closed, because a late submit() may still use them.
    std::unique_ptr<IoBackend> m_ring;
    std::unique_ptr<IoBackend> m_pool;
    std::atomic<Kind> m_kind{Kind::Automatic};
    std::atomic<IoBackend*> m_open{nullptr}; // one of the two
};
