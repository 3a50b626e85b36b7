#include "host/report/Sequences.h"

#include <algorithm>
#include <iterator>

namespace report {

namespace {

// How many of the numbers from `first` to `last` are in `ranges`.
u64 overlap(const std::map<u64, u64>& ranges, u64 first, u64 last) {
    u64 count = 0;
    auto it = ranges.upper_bound(first);
    it = it == ranges.begin() ? it : std::prev(it);
    for (; it != ranges.end() && it->first <= last; ++it) {
        const u64 from = std::max(first, it->first);
        const u64 to = std::min(last, it->second);
        count += to >= from ? to - from + 1 : 0;
    }
    return count;
}

} // namespace

void Ranges::add(u64 first, u64 last) {
    auto it = m_lastOf.upper_bound(first);
    if (it != m_lastOf.begin() && std::prev(it)->second >= first) {
        it = std::prev(it);
        first = it->first;
    }
    while (it != m_lastOf.end() && it->first <= last) {
        last = std::max(last, it->second);
        it = m_lastOf.erase(it);
    }
    m_lastOf[first] = last;
}

bool Sequences::add(u64 sequence, s64 atMs) {
    const auto next = m_runs.upper_bound(sequence);
    if (next != m_runs.begin()) {
        Run& before = std::prev(next)->second;
        if (sequence <= before.last) {
            return false;
        }
        if (sequence == before.last + 1) {
            before.last = sequence;
            before.lastMs = atMs;
            if (next != m_runs.end() && next->first == sequence + 1) {
                before.last = next->second.last;
                before.lastMs = next->second.lastMs;
                m_runs.erase(next);
            }
            return true;
        }
    }
    insertBefore(next, sequence, atMs);
    return true;
}

void Sequences::insertBefore(Runs::iterator next, u64 sequence, s64 atMs) {
    Run run{sequence, atMs, atMs};
    if (next != m_runs.end() && next->first == sequence + 1) {
        run.last = next->second.last;
        run.lastMs = next->second.lastMs;
        next = m_runs.erase(next);
    }
    m_runs.emplace_hint(next, sequence, run);
}

std::vector<Gap> Sequences::gaps(const Ranges& evicted) const {
    std::vector<Gap> gaps;
    u64 expected = 1;
    s64 afterMs = 0;
    for (const auto& [first, run] : m_runs) {
        if (first > expected) {
            const u64 count = first - expected - overlap(evicted.ranges(), expected, first - 1);
            if (count > 0) {
                gaps.push_back({expected, first - 1, count, expected == 1, afterMs, run.firstMs});
            }
        }
        expected = run.last + 1;
        afterMs = run.lastMs;
    }
    return gaps;
}

} // namespace report
