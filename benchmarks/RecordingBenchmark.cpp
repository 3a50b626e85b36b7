#include "benchmarks/Benchmark.h"
#include "common/infra/AIO.h"
#include "common/infra/Singleton.h"
#include "host/services/StorageLatency.h"

#include <prometheus/histogram.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr StorageLimits limits = {50'000, {1'000, 5'000, 20'000, 100'000}};
const prometheus::Histogram::BucketBoundaries bounds = {1e6, 5e6, 20e6, 100e6}; // in ns

// What a busy disk does: mostly the first class, some of each, and a high-latency episode that
// begins every thousand I/Os or so.
class Latencies {
public:
    Latencies() {
        std::mt19937_64 random; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same mix every time
        std::lognormal_distribution<double> us(6.2, 0.9);
        for (u64& ns : m_ns) {
            ns = static_cast<u64>(us(random) * 1000);
        }
        m_ns[m_ns.size() / 2] = u64{limits.bounds[3]} * 1000 + 1;
    }

    u64 operator[](u64 number) const { return m_ns[number % m_ns.size()]; }

private:
    std::array<u64, 1024> m_ns{};
};

const Latencies latencies;

Case countingOn(unsigned int threads) {
    Case counting{"ours",
                  [](u64 times) {
                      for (u64 i = 0; i < times; ++i) {
                          Singleton<AIO, AIO>::instance()->countIo(latencies[i]);
                      }
                  },
                  threads};
    counting.sleeps = threads > 1; // in a mutex, where an episode begins or ends
    return counting;
}

Case observingOn(unsigned int threads, prometheus::Histogram& histogram) {
    Case observing{"prometheus-cpp Histogram::Observe",
                   [&](u64 times) {
                       for (u64 i = 0; i < times; ++i) {
                           histogram.Observe(static_cast<double>(latencies[i]));
                       }
                   },
                   threads};
    observing.sleeps = threads > 1; // in a mutex, at each I/O
    return observing;
}

// On each of the threads, of a counter of its own.
Case bareAddition(unsigned int threads = 1) {
    return {"relaxed fetch_add",
            [](u64 times) {
                alignas(64) std::atomic<u64> counter{0};
                for (u64 i = 0; i < times; ++i) {
                    keep(latencies[i]);
                    counter.fetch_add(1, std::memory_order_relaxed);
                    keep(&counter);
                }
            },
            threads};
}

// Threads that have a lane each and do nothing with it.
class LaneHolders {
public:
    LaneHolders() {
        for (unsigned int i = 0; i < ThreadLane::count; ++i) {
            m_threads.emplace_back([this] {
                ThreadLane::mine();
                m_taken.arrive();
                m_over.wait();
            });
        }
        m_taken.wait();
    }
    ~LaneHolders() {
        m_over.arrive();
        std::for_each(m_threads.begin(), m_threads.end(), [](std::thread& each) { each.join(); });
    }
    LaneHolders(const LaneHolders&) = delete;
    LaneHolders& operator=(const LaneHolders&) = delete;

private:
    class Arrivals {
    public:
        explicit Arrivals(unsigned int awaited) : m_awaited(awaited) {}
        void arrive() {
            const std::lock_guard<std::mutex> lock(m_mutex);
            --m_awaited;
            m_changed.notify_all();
        }
        void wait() {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return m_awaited == 0; });
        }

    private:
        std::mutex m_mutex;
        std::condition_variable m_changed;
        unsigned int m_awaited;
    };

    Arrivals m_taken{ThreadLane::count};
    Arrivals m_over{1};
    std::vector<std::thread> m_threads;
};

std::vector<Result> compareCounting(const Settings& settings) {
    prometheus::Histogram peer(bounds);
    const auto one = interleave({countingOn(1), observingOn(1, peer), bareAddition()}, settings);
    return {compare("counting one I/O", one[0], one[2], Target::atMost(1.0)),
            compare("counting one I/O", one[0], one[1], Target::atLeast(4.5))};
}

std::vector<Result> compareCountingTogether(const Settings& settings) {
    prometheus::Histogram peer(bounds);
    const auto two = interleave({countingOn(2), observingOn(2, peer), bareAddition(2)}, settings);
    return {compare("counting, two threads", two[0], two[2], Target::atMost(1.0)),
            compare("counting, two threads", two[0], two[1], Target::atLeast(7))};
}

// Where all lanes are taken: the two threads share one, and its cache line.
std::vector<Result> compareCountingShared(const Settings& settings) {
    const LaneHolders holders;
    const auto two = interleave({countingOn(2), bareAddition(2)}, settings);
    return {compare("counting, the 17th and 18th thread", two[0], two[1], Target::reported())};
}

// What a report pays for the percentiles: a reading after I/Os of every latency.
std::vector<Result> measureReading(const Settings& settings) {
    StorageLatency counters;
    StorageLatency unused;
    const auto samples = interleave({{"I/Os counted",
                                      [&](u64 times) {
                                          for (u64 i = 0; i < times; ++i) {
                                              counters.countIo(latencies[i]);
                                              keep(counters.closePeriod().p50Us);
                                          }
                                      }},
                                     {"nothing counted",
                                      [&](u64 times) {
                                          for (u64 i = 0; i < times; ++i) {
                                              keep(unused.closePeriod().p50Us);
                                          }
                                      }}},
                                    settings);
    return {compare("closing a period, percentiles included", samples[0], samples[1],
                    Target::reported())};
}

std::vector<Result> measureScope(const Settings& settings) {
    const auto samples = interleave({{"ours",
                                      [](u64 times) {
                                          for (u64 i = 0; i < times; ++i) {
                                              const AIO::Measure io;
                                          }
                                      }},
                                     {"two readings of the clock",
                                      [](u64 times) {
                                          for (u64 i = 0; i < times; ++i) {
                                              keep(monotonicNs());
                                              keep(monotonicNs());
                                          }
                                      }}},
                                    settings);
    return {compare("AIO::Measure around nothing", samples[0], samples[1], Target::reported())};
}

} // namespace

std::vector<Benchmark> recordingBenchmarks() {
    return {{"counting", compareCounting},
            {"counting, two threads", compareCountingTogether},
            {"counting, shared", compareCountingShared},
            {"reading", measureReading},
            {"scope", measureScope}};
}
