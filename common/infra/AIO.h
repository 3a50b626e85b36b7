#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <cstddef>
#include <memory>

// The storage latency of one counting period.
struct StorageAnalyticsCounters {
    u32 latencyThreshold = 0;              // microseconds; the one in force during the period
    u32 storageLatency[5] = {};            // completed I/Os by latency class, fastest first
    u32 avrHighStorageLatencyDuration = 0; // milliseconds; mean over the high-latency episodes
    u32 maxHighStorageLatencyDuration = 0; // milliseconds; the longest of them
};

// One I/O. The caller owns it and its buffer, and keeps both alive and unchanged from submit()
// until `completed` is called; then it may be used again, also from inside `completed`.
struct ANALYTICS_EXPORT AioRequest {
    enum Operation : u32 {
        Read,
        Write,
        NoOp // goes the whole way but touches no storage
    };
    // Called on the service's thread. `result` is the number of bytes moved, or a negative errno.
    // Must not throw and should be short: completions behind it wait.
    using Completed = void (*)(AioRequest& request, int result);

    Operation operation = Read;
    u32 length = 0; // bytes
    u64 offset = 0; // bytes from the start of the file
    void* buffer = nullptr;
    Completed completed = nullptr;
    u64 latencyNs = 0; // written by the service before it calls `completed`

private:
    friend class AIO;
    AioRequest* m_next = nullptr;
    u64 m_handedOverNs = 0;
};

// The host's asynchronous I/O service, reached as Singleton<AIO, AIO>: reads and writes of one
// file, whose latencies it counts, from the hand-over to the kernel until the completion is seen.
//
//     aio->open({fd, 32});
//     aio->submit(request); // any thread; `completed` is called on the service's own
//     aio->close();         // waits for what was submitted
//
// A latency class holds what took up to its bound. A high-latency episode begins with the first
// completed I/O that took at least the threshold and ends with the first that took less; one that
// is open when the counters are read is counted up to that moment and goes on as a new one.
class ANALYTICS_EXPORT AIO {
public:
    struct Options {
        int file = -1;           // open file descriptor; stays the caller's
        u32 queueDepth = 1;      // I/Os in the kernel at a time; more of them wait in order
        void* buffers = nullptr; // memory that holds the requests' buffers, to be registered with
        std::size_t bufferBytes = 0; // the kernel; null: none
    };
    // Latency limits in microseconds.
    struct Limits {
        u32 threshold = 0;
        u32 bounds[4] = {};
    };

    AIO();
    ~AIO(); // closes
    AIO(const AIO&) = delete;
    AIO& operator=(const AIO&) = delete;

    // Closes the counting period: writes its eight values and starts the next one with the limits
    // that the live tunables hold now. Every completed I/O is in exactly one period; counts stop at
    // the largest u32. Any thread.
    void mabeStorageLatencyAnalytics(StorageAnalyticsCounters& counters);
    // The limits that were in force in the period closed last.
    Limits limitsOfClosedPeriod() const;

    // Starts the service's thread. Throws std::system_error if the kernel refuses, std::logic_error
    // if the service is open or the queue depth is not 1 to 32767.
    void open(const Options& options);
    // Hands I/Os over, many in one go. RC_WRONG_OBJECT_STATE, with nothing taken, unless open. Any
    // thread, also from inside a completion.
    RcStatus submit(AioRequest& request);
    RcStatus submit(AioRequest* const* requests, std::size_t count);
    // Refuses further I/Os, waits for those that were submitted, ends the thread. Not from inside a
    // completion.
    void close();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
