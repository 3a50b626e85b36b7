#include "benchmarks/Benchmark.h"
#include "benchmarks/Machine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>
#include <stdexcept>

namespace {

std::vector<Benchmark> allBenchmarks() {
    std::vector<Benchmark> all;
    for (const auto& room :
         {singletonBenchmarks(), recordingBenchmarks(), loggingBenchmarks(), reportBenchmarks(),
          timerBenchmarks(), maximumBenchmarks(), microBenchmarks(), footprintBenchmarks(),
          engineBenchmarks(), forwardingBenchmarks()}) {
        all.insert(all.end(), room.begin(), room.end());
    }
    return all;
}

std::string namesOf(const std::vector<Benchmark>& benchmarks) {
    std::string names;
    for (const Benchmark& benchmark : benchmarks) {
        names += (names.empty() ? "" : "; ") + benchmark.name;
    }
    return names;
}

struct Options {
    Settings settings;
    std::string filter;
    bool json = false;
};

void addOptions(CLI::App& app, Options& options) {
    app.add_flag("--json", options.json, "Print JSON instead of a table");
    app.add_option("--filter", options.filter,
                   "Only the benchmarks whose name contains this: " + namesOf(allBenchmarks()))
        ->type_name("TEXT");
    app.add_option("--rounds", options.settings.rounds,
                   "Rounds of each comparison (default 150); of reads, 20 at most")
        ->check(CLI::Range(1U, 10'000U))
        ->type_name("N");
    app.add_option("--path", options.settings.path,
                   "Folder on the disk to measure, with room for 1 GiB (default .)")
        ->check(CLI::ExistingDirectory)
        ->type_name("FOLDER");
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

std::vector<Benchmark> chosenBenchmarks(const std::string& filter) {
    std::vector<Benchmark> chosen = allBenchmarks();
    const auto isOut = [&](const Benchmark& benchmark) {
        return benchmark.name.find(filter) == std::string::npos;
    };
    chosen.erase(std::remove_if(chosen.begin(), chosen.end(), isOut), chosen.end());
    if (chosen.empty()) {
        throw CLI::ValidationError("--filter",
                                   "'" + filter + "' is in no name of " + namesOf(allBenchmarks()));
    }
    return chosen;
}

// The rows of those that could be measured.
struct Measured {
    std::vector<Result> rows;
    bool areAll = true;
};

Measured measure(const std::vector<Benchmark>& benchmarks, const Settings& settings) {
    Measured measured;
    for (const Benchmark& benchmark : benchmarks) {
        std::cerr << "measuring " << benchmark.name << " ..." << std::endl;
        try {
            const auto rows = benchmark.run(settings);
            measured.rows.insert(measured.rows.end(), rows.begin(), rows.end());
        } catch (const std::exception& error) {
            std::cerr << "analytics-bench: " << benchmark.name << ": " << error.what() << std::endl;
            measured.areAll = false;
        }
    }
    return measured;
}

int run(int argc, char** argv) {
    CLI::App app("Measures the operations that are on a host's hot paths, beside peers and limits");
    Options options;
    addOptions(app, options);
    std::vector<Benchmark> benchmarks;
    try {
        app.parse(argc, argv);
        benchmarks = chosenBenchmarks(options.filter);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    const std::string machine = describeMachine();
    const Measured measured = measure(benchmarks, shortened(options.settings));
    std::cout << (options.json ? toJson(machine, measured.rows) : toTable(machine, measured.rows))
              << std::flush;
    if (!std::cout) {
        throw std::runtime_error("cannot write to standard output");
    }
    return measured.areAll ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "analytics-bench: " << error.what() << std::endl;
        return 1;
    }
}
