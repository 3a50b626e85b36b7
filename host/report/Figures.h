#pragma once

#include "host/report/Collector.h"
#include "host/report/Fleet.h"

#include <optional>
#include <string>
#include <vector>

namespace report {

// What was reported from a moment until another.
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
    s64 byMs = 0; // at most, in either direction
};

// Threshold or bounds that differ from those of the host's report before.
struct LimitsChange {
    std::string host;
    s64 atMs = 0; // the first report seen to have them
    Limits before;
    Limits after;
};

// What the summary says, in every form that it takes.
struct Figures {
    u64 recordsRead = 0;
    u64 duplicates = 0;
    u64 missing = 0;
    u64 evicted = 0;
    u64 notUnderstood = 0;
    u64 otherRecords = 0; // neither storage reports nor maxima
    std::vector<StrangeLine> firstNotUnderstood;

    std::size_t boots = 0;
    std::optional<s64> fromMs;
    std::optional<s64> toMs;
    s64 stepMs = 0;

    Totals totals;
    std::vector<Slice> periods;  // of equal length, those with reports: twelve at most
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

Figures figuresOf(const Collector& collector);

} // namespace report
