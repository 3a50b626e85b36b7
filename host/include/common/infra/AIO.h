#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>

// The storage latency of one counting period. ("avr", "mabe" below and "Curent" in Timer.h are the
// interface's own spelling.)
struct ANALYTICS_TAG StorageAnalyticsCounters {
    u32 latencyThreshold = 0;              // microseconds; the one in force during the period
    u32 storageLatency[5] = {};            // completed I/Os by latency class, fastest first
    u32 avrHighStorageLatencyDuration = 0; // milliseconds; mean over the high-latency episodes
    u32 maxHighStorageLatencyDuration = 0; // milliseconds; the longest of them
};

class ANALYTICS_EXPORT InFlightIos;
class ANALYTICS_EXPORT StorageLatency;

// The start of an I/O in flight, by which a stall is known while it lasts: a period that is closed
// meanwhile counts the I/O as slow once it is older than the threshold. A thread that makes many
// I/Os may keep one such object, set to the oldest of them. Used by one thread at a time.
class ANALYTICS_EXPORT InFlightIo {
public:
    // `startNs` is of the monotonic clock; 0: nothing is in flight. `latency` must outlive this.
    InFlightIo(StorageLatency& latency, u64 startNs);
    ~InFlightIo();
    InFlightIo(const InFlightIo&) = delete;
    InFlightIo& operator=(const InFlightIo&) = delete;

    void setStart(u64 startNs) { m_startNs.store(startNs, std::memory_order_relaxed); }

private:
    friend class InFlightIos;
    StorageLatency& m_latency;
    std::atomic<u64> m_startNs;
    std::size_t m_stripe;
    InFlightIo* m_previous;
    InFlightIo* m_next;
};

// The host's asynchronous I/O service, reached as Singleton<AIO, AIO>: counts the I/Os of the
// process and their latencies, whoever makes them. It makes none itself. Code that makes I/Os
// counts each of them in one of two ways:
//
//     {
//         AIO::Measure io;                     // from its construction to its destruction; a
//         if (pread(...) < 0) { io.failed(); } // stall is known while it lasts
//     }
//
//     AIO& aio = *Singleton<AIO, AIO>::instance();
//     aio.countIo(latencyNs);                  // where the latency is known already
//
// Any thread. countIo() and countFailedIo() take a lock only where an I/O is slow or a high-latency
// episode is open. A Measure takes one for a moment at either end.
class ANALYTICS_EXPORT AIO {
public:
    // Counts one I/O: its latency is the lifetime of the object, which may end on another thread.
    class ANALYTICS_EXPORT Measure {
    public:
        Measure(); // in the process's own counters
        // In these counters too: those of the reads, say, or of one device. They must outlive this.
        explicit Measure(StorageLatency& set);
        ~Measure();
        Measure(const Measure&) = delete;
        Measure& operator=(const Measure&) = delete;

        // The I/O is counted as failed.
        void failed() { m_failed = true; }

    private:
        Measure(StorageLatency* set, u64 startNs);

        StorageLatency& m_own;
        StorageLatency* const m_set;
        const u64 m_startNs;
        InFlightIo m_inFlight;
        std::optional<InFlightIo> m_inFlightOfSet;
        bool m_failed = false;
    };

    AIO();
    ~AIO();
    AIO(const AIO&) = delete;
    AIO& operator=(const AIO&) = delete;

    // Closes the counting period: writes its eight values and starts the next one under the limits
    // that the live tunables hold now. Every completed I/O is in exactly one period; counts stop at
    // the largest u32. Logs a warning if nothing was counted by the first reading.
    void mabeStorageLatencyAnalytics(StorageAnalyticsCounters& counters);

    // Counts an I/O that took so long, from its submission to storage until its completion was
    // seen.
    void countIo(u64 latencyNs);
    // The same for an I/O that failed: it is in no latency class and no percentile.
    void countFailedIo(u64 latencyNs);

    // The counters behind this service (host/services/StorageLatency.h). They also tell what the
    // report's record has no room for: percentiles, failures, the limits of the closed period.
    StorageLatency& latency() { return *m_latency; }

private:
    std::unique_ptr<StorageLatency> m_latency;
    std::atomic<bool> m_checked{false}; // whether anything counts I/Os, at the first reading
};
