#include "benchmarks/Benchmark.h"
#include "benchmarks/Machine.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <exception>
#include <iostream>

namespace {

std::vector<Benchmark> allBenchmarks() {
    std::vector<Benchmark> all;
    for (const auto& room :
         {singletonBenchmarks(), recordingBenchmarks(), loggingBenchmarks(), reportBenchmarks(),
          timerBenchmarks(), microBenchmarks(), footprintBenchmarks(), dataPathBenchmarks()}) {
        all.insert(all.end(), room.begin(), room.end());
    }
    return all;
}

struct Options {
    Settings settings;
    std::string filter;
    bool json = false;
};

void addOptions(CLI::App& app, Options& options) {
    app.add_flag("--json", options.json, "Print JSON instead of a table");
    app.add_option("--filter", options.filter, "Only the benchmarks whose name contains this")
        ->type_name("TEXT");
    app.add_option("--rounds", options.settings.rounds, "Rounds of each comparison (default 150)")
        ->check(CLI::Range(1U, 10'000U))
        ->type_name("N");
    app.add_flag("--smoke", options.settings.smoke,
                 "One short round of each, only to see that it runs");
}

Settings shortened(Settings settings) {
    if (settings.smoke) {
        settings.rounds = 1;
        settings.slice = std::chrono::milliseconds(1);
    }
    return settings;
}

std::vector<Result> runAll(const Options& options) {
    std::vector<Result> results;
    for (const Benchmark& benchmark : allBenchmarks()) {
        if (benchmark.name.find(options.filter) != std::string::npos) {
            std::cerr << "measuring " << benchmark.name << " ..." << std::endl;
            const auto rows = benchmark.run(shortened(options.settings));
            results.insert(results.end(), rows.begin(), rows.end());
        }
    }
    return results;
}

} // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app(
            "Measures the operations that are on a host's hot paths, beside peers and limits");
        Options options;
        addOptions(app, options);
        CLI11_PARSE(app, argc, argv);
        const std::string machine = describeMachine();
        const auto results = runAll(options);
        std::cout << (options.json ? toJson(machine, results) : toTable(machine, results))
                  << std::flush;
    } catch (const std::exception& error) {
        std::cerr << "analytics-bench: " << error.what() << std::endl;
        return 1;
    }
    return std::cout ? 0 : 1;
}
