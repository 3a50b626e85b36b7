#include "host/program/RunSummary.h"

#include "common/infra/Defs.h"
#include "host/services/Clock.h"
#include "host/services/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <numeric>
#include <utility>

namespace {

using Out = std::back_insert_iterator<std::string>;

constexpr std::size_t classCount = 5;

std::string boundOf(const RunTotals& totals, std::size_t latencyClass) {
    if (totals.limitsChanged) {
        return "changed";
    }
    const bool isLast = latencyClass + 1 == classCount;
    const u32 boundUs = totals.limits.bounds[isLast ? latencyClass - 1 : latencyClass];
    constexpr int digits = 6;
    return (isLast ? "> " : "<= ") + latencyText(boundUs, digits);
}

void writeClasses(Out out, const RunTotals& totals) {
    const u64 all = std::accumulate(totals.classes.begin(), totals.classes.end(), u64{0});
    fmt::format_to(out, "  {:<11}  {:>13}  {:>12}  {:>7}\n", "class", "bound", "I/Os", "share");
    for (std::size_t i = 0; i < classCount; ++i) {
        const u64 ios = totals.classes[i];
        const double share =
            all == 0 ? 0.0 : 100.0 * static_cast<double>(ios) / static_cast<double>(all);
        fmt::format_to(out, "  cm{:<9}  {:>13}  {:>12}  {:>5.1f} %\n", i + 1, boundOf(totals, i),
                       ios, share);
    }
    fmt::format_to(out, "  {:<11}  {:>13}  {:>12}\n", "all", "", all);
    fmt::format_to(out, "  {:<11}  {:>13}  {:>12}\n", "failed", "", totals.failedIos);
}

void writeRow(Out out, const char* name, const std::string& value) {
    constexpr std::size_t widest = 65;
    const bool fits = value.size() <= widest;
    fmt::format_to(out, "  {:<11}  {}\n", name,
                   fits ? value : "..." + value.substr(value.size() - (widest - 3)));
}

void writePercentiles(Out out, const StoragePeriod& highest) {
    const std::pair<const char*, u32> rows[] = {{"p50", highest.p50Us},
                                                {"p90", highest.p90Us},
                                                {"p99", highest.p99Us},
                                                {"p99.9", highest.p999Us},
                                                {"max", highest.maxUs}};
    for (const auto& [name, us] : rows) {
        constexpr int digits = 4;
        const bool isFirst = name == rows[0].first;
        fmt::format_to(out, "  {:<11}  {:>13}{}\n", name, latencyText(us, digits),
                       isFirst ? "  (each the highest of any period)" : "");
    }
}

// As the options take them: "64M".
std::string bytesText(u64 bytes) {
    const char* unit = "";
    for (const char* larger : {"K", "M", "G"}) {
        if (bytes == 0 || bytes % 1'024 != 0) {
            break;
        }
        bytes /= 1'024;
        unit = larger;
    }
    return std::to_string(bytes) + unit;
}

void writeOptions(Out out, const Options& options) {
    writeRow(out, "block size", bytesText(options.blockSize));
    writeRow(out, "queue depth", std::to_string(options.queueDepth));
    writeRow(out, "reads", std::to_string(options.readPercent) + " %");
    writeRow(out, "rate",
             options.rate == 0 ? "as fast as the queue depth allows"
                               : std::to_string(options.rate) + " I/Os per second");
    writeRow(out, "size", bytesText(options.size));
}

} // namespace

void RunTotals::add(const StoragePeriod& period) {
    for (std::size_t i = 0; i < classCount; ++i) {
        classes[i] += period.counters.storageLatency[i];
    }
    failedIos += period.failedIos;
    episodes += period.episodes;
    longestEpisodeMs = std::max(longestEpisodeMs, period.counters.maxHighStorageLatencyDuration);
    for (const auto percentile :
         {&StoragePeriod::p50Us, &StoragePeriod::p90Us, &StoragePeriod::p99Us,
          &StoragePeriod::p999Us, &StoragePeriod::maxUs}) {
        highest.*percentile = std::max(highest.*percentile, period.*percentile);
    }
    limitsChanged = limitsChanged ||
                    (periods != 0 && !std::equal(std::begin(limits.bounds), std::end(limits.bounds),
                                                 period.limits.bounds));
    limits = period.limits;
    ++periods;
}

std::string RunSummary::text() const {
    std::string text = "whole run\n";
    const Out out(text);
    writeClasses(out, totals);
    writePercentiles(out, totals.highest);
    writeRow(out, "episodes",
             fmt::format("{}, longest {} ms (of high latency; a period's end divides one)",
                         totals.episodes, totals.longestEpisodeMs));
    writeRow(out, "periods", std::to_string(totals.periods));
    writeRow(out, "duration", fmt::format("{} s", static_cast<double>(durationMs) / OneSecondInMs));
    writeRow(out, "folder", options.path);
    writeRow(out, "file system", fileSystem.type);
    writeRow(out, "device", fileSystem.device);
    writeRow(out, "engine", ioEngine == IoEngine::Kind::Threads ? "threads" : "io_uring");
    writeOptions(out, options);
    return text;
}

std::string rateShortfall(const Options& options, u64 completedIos, u64 durationNs) {
    const double seconds = static_cast<double>(durationNs) / nsPerSecond;
    const auto made = static_cast<double>(completedIos);
    if (options.rate == 0 || made + 1 >= 0.95 * options.rate * seconds ||
        completedIos >= options.maxIos.value_or(~u64{0})) {
        return "";
    }
    return fmt::format("{:.0f} of the {} I/Os per second that were asked for",
                       std::floor(made / seconds), options.rate);
}
