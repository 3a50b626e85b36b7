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

// Sequence numbers that were not seen, and the times of the records before and after them.
struct Gap {
    u64 first = 0;
    u64 last = 0;
    u64 count = 0;        // the missing ones from first to last; the others were evicted
    bool isFirst = false; // no record was seen before it; `afterMs` is not set
    s64 afterMs = 0;
    s64 beforeMs = 0;
};

// The sequence numbers seen of a process, kept as one range for each run of them.
class Sequences {
public:
    // False if the number was seen before.
    bool add(u64 sequence, s64 atMs);

    // The gaps from 1 to the greatest number seen, in order. Evicted numbers are not missing.
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
