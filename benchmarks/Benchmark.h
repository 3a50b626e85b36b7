#pragma once

#include "benchmarks/Paired.h"
#include "benchmarks/Result.h"

#include <functional>
#include <string>
#include <vector>

// Something that can be run alone and gives rows of the table.
struct Benchmark {
    std::string name; // what --filter looks at
    std::function<std::vector<Result>(const Settings&)> run;
};

std::vector<Benchmark> singletonBenchmarks();
std::vector<Benchmark> recordingBenchmarks();
std::vector<Benchmark> loggingBenchmarks();
std::vector<Benchmark> reportBenchmarks();
std::vector<Benchmark> timerBenchmarks();
std::vector<Benchmark> maximumBenchmarks();
std::vector<Benchmark> microBenchmarks();
std::vector<Benchmark> footprintBenchmarks();
std::vector<Benchmark> engineBenchmarks();
