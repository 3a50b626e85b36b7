#include "benchmarks/Benchmark.h"
#include "host/services/StorageLatency.h"

#include <prometheus/histogram.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <random>

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

Case recordingOn(unsigned int threads, StorageLatency& latency) {
    Case recording{"ours",
                   [&](u64 times) {
                       for (u64 i = 0; i < times; ++i) {
                           latency.countIo(latencies[i]);
                       }
                   },
                   threads};
    recording.sleeps = threads > 1; // in a mutex, where an episode begins or ends
    return recording;
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

Case bareAddition(std::atomic<u64>& counter) {
    return {"relaxed fetch_add", [&](u64 times) {
                for (u64 i = 0; i < times; ++i) {
                    keep(latencies[i]);
                    counter.fetch_add(1, std::memory_order_relaxed);
                }
            }};
}

std::vector<Result> compareRecording(const Settings& settings) {
    StorageLatency ours;
    prometheus::Histogram peer(bounds);
    std::atomic<u64> counter{0};
    const auto one =
        interleave({recordingOn(1, ours), observingOn(1, peer), bareAddition(counter)}, settings);
    return {compare("recording one I/O's latency", one[0], one[2], Target::atMost(1.25)),
            compare("recording one I/O's latency", one[0], one[1], Target::atLeast(4.5))};
}

std::vector<Result> compareRecordingTogether(const Settings& settings) {
    StorageLatency ours;
    prometheus::Histogram peer(bounds);
    const auto two = interleave({recordingOn(2, ours), observingOn(2, peer)}, settings);
    return {compare("recording, two threads", two[0], two[1], Target::atLeast(7))};
}

} // namespace

std::vector<Benchmark> recordingBenchmarks() {
    return {{"recording", compareRecording}, {"recording, two threads", compareRecordingTogether}};
}
