#pragma once

#include "common/infra/Defs.h"

#include <array>
#include <string_view>
#include <utility>
#include <vector>

namespace report {

// Indices of a period's percentiles and of its longest I/O.
enum Percentile { P50, P90, P99, P999, Max, PercentileCount };

constexpr std::size_t classCount = 5;

// The sum of storage reports. Counts stop at the top of u64. Percentiles are the worst of the
// periods', since the percentiles of periods do not give those of their sum.
struct Totals {
    u64 reports = 0;
    std::array<u64, classCount> classes{};
    u64 failed = 0;
    u64 episodes = 0;
    u64 episodeSumMs = 0;
    u32 longestEpisodeMs = 0;
    std::array<u32, PercentileCount> percentilesUs{};

    void add(const Totals& other);
    u64 ios() const;     // that succeeded
    u64 slowIos() const; // the classes 3 to 5
    double slowShare() const;
    double meanEpisodeMs() const;
};

// In microseconds. 0: not in the report.
struct Limits {
    u32 thresholdUs = 0;
    std::array<u32, classCount - 1> boundsUs{};

    bool operator==(const Limits& other) const {
        return thresholdUs == other.thresholdUs && boundsUs == other.boundsUs;
    }
    bool operator!=(const Limits& other) const { return !(*this == other); }
};

// The content of a line. Texts are valid until the next line is parsed.
struct Record {
    enum Kind { Storage, Maxima, Account, Evicted, Other };

    std::string_view host;
    std::string_view boot;
    u64 sequence = 0;
    s64 forwardedAtMs = 0;
    s64 timeStampMs = 0;
    Kind kind = Other;

    // Of storage reports.
    Totals totals;
    u64 periodMs = 0;
    Limits limits;
    std::string_view set; // empty: the process's own report

    // Of the others: the entries of type u64.
    std::vector<std::pair<std::string_view, u64>> numbers;
    // Of evictions: whose records.
    std::string_view evictedHost;
    std::string_view evictedBoot;

    // 0 if there is none.
    u64 number(std::string_view key) const;
};

} // namespace report
