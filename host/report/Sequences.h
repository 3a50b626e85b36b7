#pragma once

#include "common/infra/Defs.h"

#include <map>
#include <vector>

namespace report {

// A set of sequence numbers as ranges without overlap, first to last.
class Ranges {
public:
    void add(u64 first, u64 last);
    const std::map<u64, u64>& ranges() const { return m_lastOf; }

private:
    std::map<u64, u64> m_lastOf; // by first
};

// Sequence numbers that were not seen, between the moments of the records around them.
struct Gap {
    u64 first = 0;
    u64 last = 0;
    u64 count = 0;        // of those from first to last; others were evicted
    bool isFirst = false; // nothing was seen before it, and `afterMs` means nothing
    s64 afterMs = 0;
    s64 beforeMs = 0;
};

// The sequence numbers seen of a process, kept as one range for each run of them.
class Sequences {
public:
    // False if the number was seen before.
    bool add(u64 sequence, s64 atMs);

    // From 1 to the greatest number seen, without what is in `evicted`; in order.
    std::vector<Gap> gaps(const Ranges& evicted) const;

private:
    struct Run {
        u64 last;
        s64 firstMs;
        s64 lastMs;
    };
    using Runs = std::map<u64, Run>; // by first

    void insertBefore(Runs::iterator next, u64 sequence, s64 atMs);

    Runs m_runs;
};

} // namespace report
