#pragma once

#include "benchmarks/Result.h"
#include "common/infra/Defs.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// How long to measure, and where.
struct Settings {
    unsigned int rounds = 150;
    std::chrono::nanoseconds slice = std::chrono::milliseconds(8);
    std::string path = "."; // folder on the disk that is measured
    bool smoke = false;     // only to see that it runs: one round
};

// One of the operations that are compared.
struct Case {
    std::string name;
    std::function<void(u64 iterations)> work; // the operation, so many times; on each thread
    unsigned int threads = 1;
    std::function<void()> prepare{}; // of one thread: before each slice, not timed
    u64 iterations = 0;              // of a slice; 0: as many as fill it, found out once
    bool sleeps = false;             // it waits for others, so it need not have its processor
};

// Nanoseconds for one operation on one thread, in each round.
struct Samples {
    std::string name;
    std::vector<double> ns;
    unsigned int disturbed = 0; // rounds that stayed disturbed, however often they were repeated
};

// Machines change their speed while one measures, so absolute times mean little. The cases take
// turns in short slices, in a new order in each round, and what counts is the ratio within a round.
// Each thread is pinned to a processor. A slice in which a thread did not have its processor, or in
// which the threads did not run at the same time, is repeated, within a budget for the whole
// comparison.
//
// One result for each case, in their order. Throws std::runtime_error if a case needs more threads
// than there are processors.
std::vector<Samples> interleave(const std::vector<Case>& cases, const Settings& settings);

// The ratio is ours to the baseline under a target of "at most" and without one, and the baseline's
// to ours, so many times faster, under one of "at least".
Result compare(const std::string& operation, const Samples& ours, const Samples& baseline,
               Target target);

// Pins the calling thread to one of the processors that the process may use; counted from 0, modulo
// their number.
void pinThread(unsigned int processor);
unsigned int processorCount();

// Makes the compiler believe that the value is used and that memory may have changed.
template <typename T>
void keep(const T& value) {
    asm volatile("" : : "g"(value) : "memory");
}

// Repeats an operation that is so cheap that it would compete with the loop's own jump.
template <typename Operation>
void repeat(u64 times, Operation operation) {
#pragma GCC unroll 16
    for (u64 i = 0; i < times; ++i) {
        operation();
    }
}
