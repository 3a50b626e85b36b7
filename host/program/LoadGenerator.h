#pragma once

#include "common/Analytics/AnalyticsMetrics.h"
#include "common/infra/Defs.h"
#include "common/infra/Lock.h"
#include "host/io/AlignedBuffer.h"
#include "host/io/IoEngine.h"
#include "host/program/FailureLog.h"

#include <atomic>
#include <condition_variable>
#include <optional>
#include <random>
#include <thread>
#include <vector>

// The program's load: random reads and writes of a file, at a steady rate or as fast as the queue
// depth allows.
class LoadGenerator {
public:
    struct Load {
        u32 blockSize; // bytes
        u32 queueDepth;
        u32 readPercent;
        u32 rate; // I/Os per second; 0: the next one as soon as one has completed
        std::optional<u64> maxIos;
        IoEngine::Kind ioEngine;
    };
    struct Counts {
        u64 reads = 0; // completed, the failed ones included
        u64 writes = 0;
        u64 failed = 0;
        u64 completed() const { return reads + writes; }
    };

    struct Maxima {
        u64 longestIoUs;  // of a single I/O
        u64 deepestQueue; // I/Os in flight at a time
    };

    // Throws std::runtime_error if there is no memory for the buffers.
    explicit LoadGenerator(const Load& load);
    ~LoadGenerator(); // stops
    LoadGenerator(const LoadGenerator&) = delete;
    LoadGenerator& operator=(const LoadGenerator&) = delete;

    // Opens the I/O engine and starts on the file, which must stay open until the stop and holds
    // at least one block. Throws std::system_error if the kernel refuses.
    void start(int file, u64 fileSize);
    // Makes no more I/Os and waits for those in flight: on return all of them are counted. Any
    // thread, but not from inside a completion; may be repeated.
    void stop();

    // Waits until as many I/Os as were asked for have completed, or stop() was called.
    void waitUntilIdle();

    // How the I/Os are made, once started.
    IoEngine::Kind ioEngine() const { return m_engine.kind(); }
    // These two wait for nothing, not even for a log that does not answer.
    u64 inFlight() const;
    Counts counts() const;
    Maxima maxima() const;

private:
    // One I/O of the queue depth, made again and again.
    struct Slot : IoRequest {
        LoadGenerator* generator = nullptr;
    };

    static void ioCompleted(IoRequest& request, int result);
    void completed(Slot& slot, int result);
    void countResult(const Slot& slot, int result) ANALYTICS_REQUIRES(m_mutex);

    void pace();
    void issue(u64 count) ANALYTICS_REQUIRES(m_mutex);
    void issueOwed() ANALYTICS_REQUIRES(m_mutex);
    bool mayIssue() const ANALYTICS_REQUIRES(m_mutex);
    bool areAllIdle() const ANALYTICS_REQUIRES(m_mutex) { return m_idle.size() == m_slots.size(); }
    void aim(Slot& slot) ANALYTICS_REQUIRES(m_mutex);

    const Load m_load;
    AlignedBuffer m_buffers;
    std::vector<Slot> m_slots;
    IoEngine m_engine;
    std::thread m_pacer;
    CheckedMutex m_lifeMutex; // starting and stopping; taken before the other

    mutable CheckedMutex m_mutex;
    std::condition_variable m_changed; // stopping, or nothing in flight any more
    std::vector<Slot*> m_idle ANALYTICS_GUARDED_BY(m_mutex);
    std::vector<IoRequest*> m_batch ANALYTICS_GUARDED_BY(m_mutex); // being issued
    std::mt19937_64 m_random ANALYTICS_GUARDED_BY(m_mutex);
    std::atomic<u64> m_reads{0}; // as in Counts; these four are written with m_mutex held
    std::atomic<u64> m_writes{0};
    std::atomic<u64> m_failed{0};
    std::atomic<u64> m_issued{0};
    AnalyticsMaximumMetric m_longestIoUs ANALYTICS_GUARDED_BY(m_mutex){"longest I/O [us]"};
    AnalyticsMaximumMetric m_deepestQueue ANALYTICS_GUARDED_BY(m_mutex){"deepest queue"};
    u64 m_blocks ANALYTICS_GUARDED_BY(m_mutex) = 0;  // of the file
    double m_owed ANALYTICS_GUARDED_BY(m_mutex) = 0; // I/Os that are due and not issued
    FailureLog m_failureLog ANALYTICS_GUARDED_BY(m_mutex);
    bool m_stopping ANALYTICS_GUARDED_BY(m_mutex) = false;
};
