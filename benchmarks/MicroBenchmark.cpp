#include "benchmarks/Benchmark.h"
#include "benchmarks/NullSink.h"
#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "common/infra/Timer.h"

#include <benchmark/benchmark.h>

namespace {

void parseDayList(benchmark::State& state) {
    const std::string list = "mon,wed,fri";
    for (auto iteration : state) {
        benchmark::DoNotOptimize(FixedDaysSchedulingPolicy::createDaysFromString(list));
    }
}

void nextFixedDay(benchmark::State& state) {
    FixedDaysSchedulingPolicy policy(FixedDaysSchedulingPolicy::createDaysFromString("mon,wed,fri"),
                                     5);
    for (auto iteration : state) {
        benchmark::DoNotOptimize(policy.getNextSchedule());
    }
}

void nextFixedFrequency(benchmark::State& state) {
    FixedFrequencySchedulingPolicy policy(86'400);
    for (auto iteration : state) {
        benchmark::DoNotOptimize(policy.getNextSchedule());
    }
}

void armOneExpiry(benchmark::State& state) {
    constexpr u32 oneDayMs = 86'400'000;
    Timer timer;
    for (auto iteration : state) {
        timer.addTimer([](ITimer::Cookie) {}, 0, oneDayMs, true);
    }
}

// Turns runs into rows.
class RowReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name == "median") {
                results.push_back({run.run_name.function_name,
                                   "",
                                   "ns",
                                   run.GetAdjustedRealTime(),
                                   {},
                                   {},
                                   Target::reported()});
            }
        }
    }

    std::vector<Result> results;
};

void add(const char* operation, void (*function)(benchmark::State&), const Settings& settings) {
    auto* added = benchmark::RegisterBenchmark(operation, function);
    added->Repetitions(settings.smoke ? 2 : 9)->ReportAggregatesOnly();
    added->Iterations(settings.smoke ? 1'000 : 100'000); // what is armed stays
}

std::vector<Result> measureAlone(const Settings& settings) {
    add("parsing a day list, three days", parseDayList, settings);
    add("getNextSchedule, fixed days", nextFixedDay, settings);
    add("getNextSchedule, fixed frequency", nextFixedFrequency, settings);
    add("one expiry's arming, up to 100,000 pending", armOneExpiry, settings);

    NullSink sink;
    ILogSink* previous = LogService::setSink(&sink);
    RowReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::ClearRegisteredBenchmarks();
    LogService::setSink(previous);
    return reporter.results;
}

} // namespace

std::vector<Benchmark> microBenchmarks() {
    return {{"micro", measureAlone}};
}
