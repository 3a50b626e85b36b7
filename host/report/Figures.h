#pragma once

#include "host/report/Collector.h"
#include "host/report/Fleet.h"

#include <optional>
#include <string>
#include <vector>

namespace report {

// The reports of a time span, its end excluded.
struct Slice {
    s64 fromMs = 0;
    s64 untilMs = 0;
    Totals totals;
};

struct HostLine {
    std::string name;
    std::size_t boots = 0;
    Totals totals;
};

struct GapLine {
    std::string host;
    std::string boot;
    Gap gap;
};

// A process in whose life the system clock was set.
struct ClockStep {
    std::string host;
    std::string boot;
    s64 byMs = 0; // the greatest difference seen, without its direction
};

// A report whose threshold or bounds differ from those of the host's previous one.
struct LimitsChange {
    std::string host;
    s64 atMs = 0; // when it was made
    Limits before;
    Limits after;
};

// The content of the summary. Text, JSON and page show the same figures.
struct Figures {
    u64 recordsRead = 0;
    u64 duplicates = 0;
    u64 missing = 0;
    u64 evicted = 0;
    u64 notUnderstood = 0;
    u64 otherRecords = 0; // of the time span; neither storage reports nor maxima
    std::vector<StrangeLine> firstNotUnderstood;

    std::size_t boots = 0;
    std::optional<s64> fromMs;
    std::optional<s64> toMs;
    s64 stepMs = 0;

    Totals totals;
    std::vector<Slice> periods;  // at most twelve of equal length; those without reports left out
    std::optional<Slice> worst;  // ten minutes, or a step if that is longer
    std::vector<HostLine> hosts; // by share of slow I/Os, the greatest first
    std::map<std::string, Totals, std::less<>> sets;
    std::map<std::string, Maximum, std::less<>> maxima;
    std::vector<GapLine> gaps;
    std::vector<ClockStep> clockSteps;
    std::vector<LimitsChange> limitsChanges; // in the order of time
    std::size_t accounts = 0;                // how many processes gave one
    Account account;                         // their sum
};

// `a` divided by `b`, rounded up. Both are above 0.
constexpr s64 ceilDiv(s64 a, s64 b) {
    return (a + b - 1) / b;
}

Figures figuresOf(const Collector& collector);

} // namespace report
