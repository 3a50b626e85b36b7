#include "benchmarks/Paired.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <exception>
#include <mutex>
#include <numeric>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

// A thread that got less of the slice than this did not have its processor.
constexpr double requiredShare = 0.99;
// Of the time between the first thread's start and the last one's end.
constexpr double requiredOverlap = 0.9;

double readClock(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// One thread's part of a slice. Times in nanoseconds.
struct Part {
    double begin = 0;
    double end = 0;
    double processor = 0;
    u64 operations = 0;
    std::exception_ptr failure{};

    double duration() const { return end - begin; }
};

template <typename Work>
Part measure(Work work) {
    Part part;
    const double processor = readClock(CLOCK_THREAD_CPUTIME_ID);
    part.begin = readClock(CLOCK_MONOTONIC);
    part.operations = work();
    part.end = readClock(CLOCK_MONOTONIC);
    part.processor = readClock(CLOCK_THREAD_CPUTIME_ID) - processor;
    return part;
}

bool isDisturbed(const Case& measured, const std::vector<Part>& parts) {
    const auto lacked = [](const Part& part) {
        return part.processor < requiredShare * part.duration();
    };
    if (!measured.sleeps && std::any_of(parts.begin(), parts.end(), lacked)) {
        return true;
    }
    Part all = parts.front();
    Part common = parts.front();
    for (const Part& part : parts) {
        all.begin = std::min(all.begin, part.begin);
        all.end = std::max(all.end, part.end);
        common.begin = std::max(common.begin, part.begin);
        common.end = std::min(common.end, part.end);
    }
    return common.duration() < requiredOverlap * all.duration();
}

double nsPerOperation(const std::vector<Part>& parts) {
    double duration = 0;
    u64 operations = 0;
    for (const Part& part : parts) {
        duration += part.duration();
        operations += part.operations;
    }
    return duration / static_cast<double>(operations);
}

// Pinned threads that wait for a slice, and begin it together.
class Crew {
public:
    explicit Crew(unsigned int size) {
        for (unsigned int number = 0; number < size; ++number) {
            m_threads.emplace_back([this, number] { run(number); });
        }
    }

    ~Crew() {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_over = true;
        }
        m_changed.notify_all();
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

    Crew(const Crew&) = delete;
    Crew& operator=(const Crew&) = delete;

    // Throws what the operation threw.
    std::vector<Part> measureSlice(const Case& measured, u64 iterations) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_case = &measured;
        m_iterations = iterations;
        m_parts.assign(measured.threads, Part{});
        m_working = m_notReady = measured.threads;
        m_isOneDone = false;
        ++m_slice;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_working == 0; });
        for (const Part& part : m_parts) {
            if (part.failure) {
                std::rethrow_exception(part.failure);
            }
        }
        return m_parts;
    }

private:
    void run(unsigned int number) {
        pinThread(number);
        u64 seen = 0;
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [&] { return m_over || m_slice != seen; });
            if (m_over) {
                return;
            }
            seen = m_slice;
            if (number < m_case->threads) {
                const Case& measured = *m_case;
                const u64 iterations = m_iterations;
                lock.unlock();
                const Part part = tryPart(measured, iterations);
                lock.lock();
                m_parts[number] = part;
                --m_working;
                m_changed.notify_all();
            }
        }
    }

    Part tryPart(const Case& measured, u64 iterations) {
        try {
            return takePart(measured, iterations);
        } catch (...) {
            Part failed;
            failed.failure = std::current_exception();
            return failed;
        }
    }

    Part takePart(const Case& measured, u64 iterations) {
        if (measured.prepare) {
            measured.prepare();
        }
        m_notReady.fetch_sub(1);
        while (m_notReady.load() != 0) {
        }
        return measure([&] {
            if (measured.threads > 1) {
                return workTogether(measured, iterations);
            }
            measured.work(iterations);
            return iterations;
        });
    }

    // Until one of the threads has done its iterations: a thread that went on alone would have it
    // easier.
    u64 workTogether(const Case& measured, u64 iterations) {
        const u64 step = std::max<u64>(1, iterations / 1000);
        u64 done = 0;
        while (done < iterations && !m_isOneDone.load(std::memory_order_relaxed)) {
            measured.work(step);
            done += step;
        }
        m_isOneDone.store(true, std::memory_order_relaxed);
        return done;
    }

    std::vector<std::thread> m_threads;
    std::atomic<unsigned int> m_notReady{0};
    std::atomic<bool> m_isOneDone{false};

    std::mutex m_mutex;
    // Under the mutex.
    std::condition_variable m_changed; // a slice is to be measured, a part of it is done, or all is
    const Case* m_case = nullptr;
    u64 m_iterations = 0;
    std::vector<Part> m_parts;
    u64 m_slice = 0;
    unsigned int m_working = 0;
    bool m_over = false;
};

u64 findIterations(Crew& crew, const Case& measured, const Settings& settings) {
    if (measured.iterations != 0) {
        return measured.iterations;
    }
    const auto slice = static_cast<double>(settings.slice.count());
    for (u64 iterations = 1;; iterations *= 4) {
        const double ns = nsPerOperation(crew.measureSlice(measured, iterations));
        if (ns * static_cast<double>(iterations) >= slice / 8) {
            return std::max<u64>(1, static_cast<u64>(slice / ns));
        }
    }
}

class Comparison {
public:
    Comparison(const std::vector<Case>& cases, const Settings& settings)
        : m_cases(cases), m_crew(threadsOf(cases)), m_budget(settings.rounds * cases.size()) {
        for (const Case& measured : cases) {
            m_iterations.push_back(findIterations(m_crew, measured, settings));
            m_samples.push_back({measured.name, {}, 0});
        }
    }

    std::vector<Samples> run(unsigned int rounds) {
        std::vector<std::size_t> order(m_cases.size());
        std::iota(order.begin(), order.end(), 0);
        std::minstd_rand random; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same orders every time
        for (unsigned int round = 0; round < rounds; ++round) {
            std::shuffle(order.begin(), order.end(), random);
            std::for_each(order.begin(), order.end(), [this](std::size_t i) { addSample(i); });
        }
        return m_samples;
    }

private:
    static unsigned int threadsOf(const std::vector<Case>& cases) {
        unsigned int threads = 0;
        for (const Case& measured : cases) {
            threads = std::max(threads, measured.threads);
        }
        if (threads > processorCount()) {
            throw std::runtime_error("needs " + std::to_string(threads) +
                                     " processors, there are " + std::to_string(processorCount()));
        }
        return threads;
    }

    void addSample(std::size_t number) {
        const Case& measured = m_cases[number];
        const u64 iterations = m_iterations[number];
        std::vector<Part> parts = m_crew.measureSlice(measured, iterations);
        while (isDisturbed(measured, parts)) {
            if (m_budget == 0) {
                ++m_samples[number].disturbed;
                break;
            }
            --m_budget;
            parts = m_crew.measureSlice(measured, iterations);
        }
        m_samples[number].ns.push_back(nsPerOperation(parts));
    }

    const std::vector<Case>& m_cases;
    Crew m_crew;
    u64 m_budget; // repeats that are left
    std::vector<u64> m_iterations;
    std::vector<Samples> m_samples;
};

cpu_set_t usableProcessors() {
    static const cpu_set_t processors = [] {
        cpu_set_t set;
        if (sched_getaffinity(0, sizeof set, &set) != 0) {
            throw std::system_error(errno, std::generic_category(), "sched_getaffinity");
        }
        return set;
    }();
    return processors;
}

} // namespace

std::vector<Samples> interleave(const std::vector<Case>& cases, const Settings& settings) {
    return Comparison(cases, settings).run(settings.rounds);
}

Result compare(const std::string& operation, const Samples& ours, const Samples& baseline,
               Target target) {
    std::vector<double> ratios;
    for (std::size_t round = 0; round < ours.ns.size(); ++round) {
        const double slowdown = ours.ns[round] / baseline.ns[round];
        ratios.push_back(target.kind == Target::AtLeast ? 1 / slowdown : slowdown);
    }
    Result result{operation,
                  baseline.name,
                  "ns",
                  spreadOf(ours.ns).median,
                  spreadOf(baseline.ns).median,
                  spreadOf(ratios),
                  target};
    const unsigned int disturbed = std::max(ours.disturbed, baseline.disturbed);
    if (disturbed > 0) {
        result.note = "disturbed in " + std::to_string(disturbed) + " of " +
                      std::to_string(ratios.size()) + " rounds";
    }
    return result;
}

unsigned int processorCount() {
    const cpu_set_t usable = usableProcessors();
    return static_cast<unsigned int>(CPU_COUNT(&usable));
}

void pinThread(unsigned int processor) {
    const cpu_set_t usable = usableProcessors();
    unsigned int left = processor % processorCount();
    for (unsigned int number = 0;; ++number) {
        if (CPU_ISSET(number, &usable) && left-- == 0) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(number, &one);
            const int error = pthread_setaffinity_np(pthread_self(), sizeof one, &one);
            if (error != 0) {
                throw std::system_error(error, std::generic_category(), "pthread_setaffinity_np");
            }
            return;
        }
    }
}
