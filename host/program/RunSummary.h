#pragma once

#include "common/infra/Defs.h"
#include "host/io/IoEngine.h"
#include "host/program/Options.h"
#include "host/program/ScratchFile.h"
#include "host/services/StorageLatency.h"

#include <array>
#include <string>

// The closed periods of a run, added up. Not synchronised.
struct RunTotals {
    u64 periods = 0;
    std::array<u64, 5> classes{}; // I/Os by latency class, fastest first
    u64 failedIos = 0;
    u64 episodes = 0; // a period's end divides one in two
    u32 longestEpisodeMs = 0;
    StoragePeriod highest; // of each percentile, the highest of any period
    StorageLimits limits;  // of the last period
    bool limitsChanged = false;

    void add(const StoragePeriod& period);
};

// What a person reads at the end of a run.
struct RunSummary {
    RunTotals totals;
    u64 durationMs;
    FileSystem fileSystem;
    IoEngine::Kind ioEngine; // that made the I/Os
    const Options& options;

    // A table of at most 80 columns.
    std::string text() const;
};

// What to say where a rate was asked for and not reached, within a twentieth and the I/O that is
// due next; empty if it was reached, or if all I/Os that were asked for are made.
std::string rateShortfall(const Options& options, u64 completedIos, u64 durationNs);
