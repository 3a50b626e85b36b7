#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <iosfwd>
#include <vector>

// What the memory tracker knows at one moment. Blocks that other threads allocate or release while
// it is made may or may not be in it.
struct ANALYTICS_EXPORT MemReport {
    // The live blocks of one type that one line of the program allocated.
    struct Place {
        const char* typeName;
        const char* file;
        unsigned int line;
        u64 blocks;
        u64 bytes;
    };

    u64 liveBlocks = 0;
    u64 liveBytes = 0;
    u64 allocations = 0; // since the process began, as are the next two
    u64 releases = 0;
    u64 badReleases = 0;       // reported and refused
    std::vector<Place> places; // most bytes first
};

// One line of totals and one line for each place, however the stream formats numbers.
ANALYTICS_EXPORT std::ostream& operator<<(std::ostream& out, const MemReport& report);

// The host's side of the memory tracker, which is one ledger for the whole process: MemShield and
// whatever derives from it register their blocks in it. A block is in the ledger from its
// allocation to its release, whether or not tracking is on; the switch only decides which
// operations a deletion calls, so it can be thrown at any time. Every operation may be called from
// any thread, concurrently, and in the child of a fork(). A release never throws.
class ANALYTICS_EXPORT MemLedger {
public:
    MemLedger() = delete;

    // On at start.
    static void setTracking(bool on);
    // Throws std::bad_alloc.
    static MemReport report();
};
