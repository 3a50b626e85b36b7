#include "benchmarks/Benchmark.h"
#include "host/io/AlignedBuffer.h"
#include "host/io/IoEngine.h"
#include "host/program/ScratchFile.h"
#include "host/services/StorageLatency.h"

#include <fmt/format.h>
#include <liburing.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <future>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr u32 blockSize = 4096;
constexpr double nsPerSecond = 1e9;

u64 nowNs() {
    return static_cast<u64>(std::chrono::steady_clock::now().time_since_epoch().count());
}

// The engine kept at a queue depth: every I/O is made again as soon as it has completed.
class Load {
public:
    // Reads of so many blocks at random; no-ops if there are none.
    Load(int file, u64 blocks, u32 depth, IoEngine::Kind kind)
        : m_blocks(blocks), m_buffers(std::size_t{blockSize} * depth), m_ios(depth) {
        for (std::size_t i = 0; i < m_ios.size(); ++i) {
            Io& io = m_ios[i];
            io.operation = blocks == 0 ? IoRequest::NoOp : IoRequest::Read;
            io.length = blockSize;
            io.buffer = m_buffers.data() + i * blockSize;
            io.completed = ioCompleted;
            io.load = this;
        }
        m_engine.open({file, depth, m_buffers.data(), m_buffers.size(), kind});
    }

    // Each of these throws std::runtime_error if an I/O failed.

    // Makes so many I/Os: all but the first ones from inside completions.
    void make(u64 count) {
        start(count);
        awaitAll();
    }

    // Makes so many I/Os: as many as the queue is deep at a time, handed in by this thread.
    void handIn(u64 count) {
        for (u64 made = 0; made < count; made += m_ios.size()) {
            make(m_ios.size());
        }
    }

    // Makes I/Os for so long and returns how many.
    u64 makeFor(std::chrono::nanoseconds duration) {
        start(~u64{0});
        std::this_thread::sleep_for(duration);
        m_isOver = true;
        awaitAll();
        return m_made;
    }

private:
    struct Io : IoRequest {
        Load* load = nullptr;
    };

    void start(u64 count) {
        std::vector<IoRequest*> first;
        for (std::size_t i = 0; i < std::min<u64>(count, m_ios.size()); ++i) {
            aim(m_ios[i]);
            first.push_back(&m_ios[i]);
        }
        m_isOver = m_areAllCompleted = false;
        m_wanted = count;
        m_made = first.size();
        m_completed = m_failed = 0;
        m_engine.submit(first.data(), first.size());
    }

    void awaitAll() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_areAllCompleted; });
        if (m_failed > 0) {
            throw std::runtime_error(fmt::format("{} of {} I/Os failed", m_failed, m_made));
        }
    }

    static void ioCompleted(IoRequest& request, int result) {
        auto& io = static_cast<Io&>(request);
        io.load->completed(io, result);
    }

    void completed(Io& io, int result) {
        ++m_completed;
        const int expected = io.operation == IoRequest::Read ? static_cast<int>(blockSize) : 0;
        m_failed += result == expected ? 0 : 1;
        if (m_made < m_wanted && !m_isOver) {
            ++m_made;
            aim(io);
            m_engine.submit(io);
        } else if (m_completed == m_made) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_areAllCompleted = true;
            m_changed.notify_all();
        }
    }

    void aim(Io& io) {
        if (m_blocks != 0) {
            io.offset = m_random() % m_blocks * blockSize;
        }
    }

    const u64 m_blocks;
    AlignedBuffer m_buffers;
    std::vector<Io> m_ios;
    std::minstd_rand m_random{std::random_device{}()};
    std::atomic<bool> m_isOver{false};

    // The engine's between start() and awaitAll(): completions come one at a time.
    u64 m_wanted = 0;
    u64 m_made = 0;
    u64 m_completed = 0;
    u64 m_failed = 0;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_areAllCompleted = false; // under the mutex

    IoEngine m_engine; // the last one, so that it closes first
};

// The engine's loop with io_uring and no more: no-ops are handed over, awaited and reaped, in the
// engine's batches.
// Belongs to the thread that makes it.
class BareRing {
public:
    explicit BareRing(u32 depth) : m_depth(depth), m_ios(depth), m_completions(depth) {
        constexpr unsigned best = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
        if (io_uring_queue_init(depth, &m_ring, best) != 0 &&
            io_uring_queue_init(depth, &m_ring, 0) != 0) {
            throw std::runtime_error("cannot set up io_uring (containers often forbid it)");
        }
    }

    ~BareRing() { io_uring_queue_exit(&m_ring); }
    BareRing(const BareRing&) = delete;
    BareRing& operator=(const BareRing&) = delete;

    void make(u64 count) {
        for (u64 made = 0; made < count; made += m_completed) {
            handOver([] { return u64{0}; });
            await();
            reap();
        }
    }

    // The same with all that the engine adds to measure: a clock reading for each batch that is
    // handed over, one for what has completed, and a look at every completion to count it before
    // any is reported.
    void makeMeasured(u64 count) {
        for (u64 made = 0; made < count; made += m_completed) {
            handOver(nowNs);
            await();
            record();
            reap();
        }
    }

private:
    struct Io {
        u64 handedOverNs = 0;
        u64 latencyNs = 0;
        int result = 0;
    };

    static Io& ioOf(const io_uring_cqe* completion) {
        return *static_cast<Io*>(io_uring_cqe_get_data(completion));
    }

    static void expectSuccess(int result) {
        if (result < 0) {
            throw std::system_error(-result, std::generic_category(), "io_uring");
        }
    }

    template <typename Clock>
    void handOver(Clock clock) {
        constexpr u32 batchSize = 8; // the engine's
        for (u32 begin = 0; begin < m_depth; begin += batchSize) {
            prepare(begin, std::min(begin + batchSize, m_depth), clock());
            if (begin + batchSize < m_depth) {
                expectSuccess(io_uring_submit(&m_ring));
            }
        }
    }

    void prepare(u32 begin, u32 end, u64 handedOverNs) {
        for (u32 i = begin; i < end; ++i) {
            m_ios[i].handedOverNs = handedOverNs;
            io_uring_sqe* sqe = io_uring_get_sqe(&m_ring);
            io_uring_prep_nop(sqe);
            io_uring_sqe_set_data(sqe, &m_ios[i]);
        }
    }

    // Hands over the last batch, too.
    void await() {
        expectSuccess(io_uring_submit_and_wait(&m_ring, m_depth));
        m_completed = io_uring_peek_batch_cqe(&m_ring, m_completions.data(), m_depth);
    }

    void record() {
        const u64 completedNs = nowNs();
        for (u32 i = 0; i < m_completed; ++i) {
            Io& io = ioOf(m_completions[i]);
            io.latencyNs = completedNs - io.handedOverNs;
            m_latency.countIo(io.latencyNs);
        }
    }

    void reap() {
        for (u32 i = 0; i < m_completed; ++i) {
            ioOf(m_completions[i]).result = m_completions[i]->res;
        }
        io_uring_cq_advance(&m_ring, m_completed);
    }

    const u32 m_depth;
    io_uring m_ring{};
    std::vector<Io> m_ios;
    std::vector<io_uring_cqe*> m_completions;
    u32 m_completed = 0; // of m_completions
    StorageLatency m_latency;
};

// The round's differences count, as the ratios do elsewhere.
Result costOf(const std::string& operation, const Samples& with, const Samples& without,
              const Samples& clock, Target target) {
    std::vector<double> costs;
    for (std::size_t round = 0; round < with.ns.size(); ++round) {
        costs.push_back(with.ns[round] - without.ns[round]);
    }
    const Spread cost = spreadOf(costs);
    Result result = compare(operation, with, without, target);
    result.ours = cost.median;
    result.ratio.reset();
    result.note =
        fmt::format("quartiles {:.3g} and {:.3g} ns; reading the clock takes {:.3g} ns here",
                    cost.lower, cost.upper, spreadOf(clock.ns).median) +
        (result.note.empty() ? "" : "; " + result.note);
    return result;
}

void readClock(u64 times) {
    for (u64 i = 0; i < times; ++i) {
        keep(nowNs());
    }
}

// At depth 1 each I/O bears two clock readings and a recording of its own.
std::vector<Result> measureMeasuring(u32 depth, Target target, const Settings& settings) {
    const ScratchFile file(settings.path, blockSize);
    // Made by the thread that measures: the ring belongs to it, and the engine's thread is pinned
    // as the one that opens the engine.
    std::optional<BareRing> ring;
    std::optional<Load> load;
    const auto makeRing = [&] {
        if (!ring) {
            ring.emplace(depth);
        }
    };
    const auto makeLoad = [&] {
        if (!load) {
            load.emplace(file.descriptor(), 0, depth, IoEngine::Kind::IoUring);
        }
    };
    const auto samples = interleave(
        {{"the same ring loop alone", [&](u64 count) { ring->make(count); }, 1, makeRing},
         {"with measuring", [&](u64 count) { ring->makeMeasured(count); }, 1, makeRing},
         {"engine", [&](u64 count) { load->make(count); }, 1, makeLoad, 0, true},
         {"engine", [&](u64 count) { load->handIn(count); }, 1, makeLoad, 0, true},
         {"clock", readClock}},
        settings);
    const std::string what = fmt::format("a no-op I/O, depth {}", depth);
    return {costOf("measuring " + what, samples[1], samples[0], samples[4], target),
            compare("engine, " + what + ", from a completion", samples[2], samples[0],
                    Target::reported()),
            compare("engine, " + what + ", from another thread", samples[3], samples[0],
                    Target::reported())};
}

// Nanoseconds for each I/O of a run.
struct Cost {
    double elapsed;
    double processor;
};

// Of the whole process, whose other threads sleep.
double processorNs() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto inNs = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * nsPerSecond +
               static_cast<double>(time.tv_usec) * 1e3;
    };
    return inNs(usage.ru_utime) + inNs(usage.ru_stime);
}

// An engine, and the one of fio's that it is held against.
struct Rival {
    IoEngine::Kind kind;
    const char* name; // of our rows
    const char* fioEngine;
    const char* fioOptions;
    double speedAtDepth1; // the targets
    double speedDeeper;
    Target processorTime;
};

const Rival rings = {IoEngine::Kind::IoUring,
                     "4 KiB random reads",
                     "io_uring",
                     "--registerfiles=1 --fixedbufs=1", // as ours; it makes fio faster
                     0.9,
                     0.95,
                     Target::atMost(1.15)};
// fio's own threads would be no measure: libaio is what is left where io_uring is refused.
const Rival pools = {
    IoEngine::Kind::Threads, "4 KiB random reads by threads", "libaio", "", 0.8, 0.8,
    Target::reported()};

// The engine's threads are pinned as the one that opens it.
Cost readWithEngine(const Rival& rival, const ScratchFile& file, u64 fileSize, u32 depth,
                    std::chrono::milliseconds duration, unsigned int processor) {
    pinThread(processor);
    Load load(file.descriptor(), fileSize / blockSize, depth, rival.kind);
    const double processorBefore = processorNs();
    const u64 startNs = nowNs();
    const auto count = static_cast<double>(load.makeFor(duration));
    return {static_cast<double>(nowNs() - startNs) / count,
            (processorNs() - processorBefore) / count};
}

std::string outputOf(const std::string& command) {
    FILE* const pipe = popen(command.c_str(), "r"); // NOLINT(cert-env33-c): no word is a user's
    if (pipe == nullptr) {
        throw std::system_error(errno, std::generic_category(), command);
    }
    std::string output;
    std::array<char, 4096> piece{};
    while (const std::size_t length = fread(piece.data(), 1, piece.size(), pipe)) {
        output.append(piece.data(), length);
    }
    const int status = pclose(pipe);
    if (status != 0) {
        throw std::runtime_error(
            fmt::format("'{}' failed, status {}: {}", command, status, output));
    }
    return output;
}

// As ours: any block at any time. With fio's own choice of blocks, the same in every run, what lies
// below a virtual disk would answer from its cache.
Cost readWithFio(const Rival& rival, const ScratchFile& file, u32 depth,
                 std::chrono::milliseconds duration, unsigned int processor) {
    pinThread(processor); // and so what it starts
    const std::string output =
        outputOf(fmt::format("fio --name=reads --filename=/proc/{}/fd/{} --ioengine={} {} "
                             "--direct={:d} --rw=randread --randrepeat=0 --norandommap=1 --bs={} "
                             "--iodepth={} --runtime={}ms --time_based --output-format=json",
                             getpid(), file.descriptor(), rival.fioEngine, rival.fioOptions,
                             file.isDirect(), blockSize, depth, duration.count()));
    const std::size_t begin = output.find('{'); // behind what fio has to note
    if (begin == std::string::npos) {
        throw std::runtime_error("fio answers without JSON: " + output);
    }
    const auto job = nlohmann::json::parse(output.substr(begin)).at("jobs").at(0);
    const double percent = job.at("usr_cpu").get<double>() + job.at("sys_cpu").get<double>();
    const double processorMs = percent / 100 * job.at("job_runtime").get<double>();
    const auto& read = job.at("read");
    return {nsPerSecond / read.at("iops").get<double>(),
            processorMs * 1e6 / read.at("total_ios").get<double>()};
}

// Of the runs of one of the two.
struct CostSamples {
    explicit CostSamples(const std::string& name) : elapsed{name, {}}, processor{name, {}} {}

    void add(const Cost& cost) {
        elapsed.ns.push_back(cost.elapsed);
        processor.ns.push_back(cost.processor);
    }

    Samples elapsed;
    Samples processor;
};

// Runs of a few seconds in turn: a disk needs longer than a slice to show what it can do.
std::vector<Result> compareWithFio(const Rival& rival, const ScratchFile& file, u64 fileSize,
                                   u32 depth, const Settings& settings) {
    const std::chrono::milliseconds duration(settings.smoke ? 100 : 2'000);
    const unsigned int rounds = settings.smoke ? 1 : std::min(settings.rounds, 20U);
    CostSamples ours("engine");
    CostSamples fio(fmt::format("fio, {}", rival.fioEngine));
    for (unsigned int round = 0; round < rounds; ++round) {
        // One processor may be nearer to the disk's interrupts than another, and a run may leave
        // something behind for the next, such as a virtual disk's used-up allowance: both change.
        const unsigned int processor = round / 2;
        if (round % 2 == 0) {
            ours.add(readWithEngine(rival, file, fileSize, depth, duration, processor));
        }
        fio.add(readWithFio(rival, file, depth, duration, processor));
        if (round % 2 != 0) {
            ours.add(readWithEngine(rival, file, fileSize, depth, duration, processor));
        }
    }
    const std::string what = fmt::format("{}, depth {}", rival.name, depth);
    Result speed = compare(what, ours.elapsed, fio.elapsed,
                           Target::atLeast(depth == 1 ? rival.speedAtDepth1 : rival.speedDeeper));
    speed.unit = "I/Os per s";
    speed.ours = nsPerSecond / speed.ours;
    speed.theirs = nsPerSecond / *speed.theirs;
    speed.note = file.isDirect() ? "" : "through the page cache: there is no direct I/O here";
    return {speed, compare(what + ", processor time of each", ours.processor, fio.processor,
                           rival.processorTime)};
}

std::vector<Result> measureReads(const Rival& rival, const Settings& settings) {
    const u64 fileSize = u64{settings.smoke ? 16U : 1024U} << 20U;
    const ScratchFile file(settings.path, fileSize);
    std::vector<Result> results;
    for (const u32 depth : {1U, 8U, 32U}) {
        const auto rows = compareWithFio(rival, file, fileSize, depth, settings);
        results.insert(results.end(), rows.begin(), rows.end());
    }
    return results;
}

} // namespace

std::vector<Benchmark> engineBenchmarks() {
    return {{"measuring an I/O",
             [](const Settings& settings) {
                 return measureMeasuring(1, Target::atMost(65), settings);
             }},
            {"measuring I/Os in batches",
             [](const Settings& settings) {
                 return measureMeasuring(32, Target::atMost(15), settings);
             }},
            // Each on a thread of its own, which is pinned.
            {"reads",
             [](const Settings& settings) {
                 return std::async(std::launch::async, measureReads, rings, settings).get();
             }},
            {"reads by threads", [](const Settings& settings) {
                 return std::async(std::launch::async, measureReads, pools, settings).get();
             }}};
}
