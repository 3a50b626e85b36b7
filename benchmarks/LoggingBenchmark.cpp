#include "benchmarks/Benchmark.h"
#include "benchmarks/Heap.h"
#include "benchmarks/NullSink.h"
#include "common/infra/Log.h"

#include <fmt/format.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>

#include <array>
#include <cstddef>
#include <memory>
#include <ostream>
#include <string>

namespace {

// A line of texts, a pointer and integers.
struct Line {
    const void* parcel;
    std::string name;
    u64 size;
    int status;
};

void logOurs(const Line& line) {
    LogItem(LogModuleKel, InfoLevel, __PRETTY_FUNCTION__, 3)
        << "parcel=" << line.parcel << " name=" << line.name << " size=" << line.size
        << " status=" << line.status << std::endl;
}

void logFmt(ILogSink& sink, const Line& line) {
    std::array<char, 512> buffer;
    const auto written =
        fmt::format_to_n(buffer.data(), buffer.size(), "parcel={} name={} size={} status={}\n",
                         line.parcel, line.name, line.size, line.status);
    sink.write({LogModuleKel, InfoLevel, __PRETTY_FUNCTION__, 3, {buffer.data(), written.size}});
}

void logSpdlog(spdlog::logger& logger, const Line& line) {
    logger.info("parcel={} name={} size={} status={}", line.parcel, line.name, line.size,
                line.status);
}

template <typename Log>
Case logging(const std::string& name, Log log) {
    return {name, [log](u64 times) {
                Line line{&log, "StoragePeriodicParcel", 0, 0};
                for (u64 i = 0; i < times; ++i) {
                    line.size = i;
                    log(line);
                }
            }};
}

Result countAllocations() {
    constexpr u64 lines = 1000;
    const Line line{&lines, "StoragePeriodicParcel", 4096, -1};
    logOurs(line);
    const u64 before = heapBlocksTaken();
    for (u64 i = 0; i < lines; ++i) {
        logOurs(line);
    }
    const auto blocks = static_cast<double>(heapBlocksTaken() - before);
    return {"heap blocks of a thousand such lines", "", "", blocks, {}, {}, Target::atMost(0)};
}

std::vector<Result> compareLogging(const Settings& settings) {
    NullSink sink;
    spdlog::logger logger("null", std::make_shared<spdlog::sinks::null_sink_mt>());
    ILogSink& bareSink = sink;
    ILogSink* previous = LogService::setSink(&sink);
    const auto samples = interleave(
        {logging("LogItem", logOurs),
         logging("fmt, stack buffer", [&](const Line& line) { logFmt(bareSink, line); }),
         logging("spdlog, synchronous", [&](const Line& line) { logSpdlog(logger, line); })},
        settings);
    const Result allocations = countAllocations();
    LogService::setLevel(WarnLevel);
    const auto off = interleave({logging("LogItem, level off", logOurs)}, settings);
    LogService::setLevel(InfoLevel);
    LogService::setSink(previous);
    return {compare("log line of eight pieces", samples[0], samples[1], Target::atMost(1.15)),
            compare("log line of eight pieces", samples[0], samples[2], Target::atMost(1.1)),
            allocations,
            {"log line of eight pieces, its level off",
             "",
             "ns",
             spreadOf(off[0].ns).median,
             {},
             {},
             Target::reported()}};
}

} // namespace

std::vector<Benchmark> loggingBenchmarks() {
    return {{"logging", compareLogging}};
}
