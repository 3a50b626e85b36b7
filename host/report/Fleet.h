#pragma once

#include "host/report/Record.h"
#include "host/report/Sequences.h"

#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace report {

// A host's storage reports whose periods ended within one step.
struct Cell {
    s64 index = 0; // of the step: its begin divided by its length
    Totals totals;
    // The limits of the step's first and last report, and when these were made.
    s64 firstMs = 0;
    s64 lastMs = 0;
    Limits first;
    Limits last;

    void add(const Cell& other);
};

// Cells in the order of their steps, one for each step.
class Cells {
public:
    void add(const Cell& cell);
    // Steps become `factor` times as long.
    void coarsen(s64 factor);
    const std::vector<Cell>& cells() const { return m_cells; }

private:
    std::vector<Cell> m_cells;
};

struct Account {
    u64 pushed = 0;
    u64 restored = 0;
    u64 delivered = 0;
    u64 failed = 0;
    u64 dropped = 0;
    u64 evicted = 0;
    u64 waiting = 0;

    bool addsUp() const {
        return pushed + restored == delivered + failed + dropped + evicted + waiting;
    }
    void add(const Account& other);
};

// One process.
struct Boot {
    std::string name;
    u64 records = 0;
    s64 firstForwardedMs = std::numeric_limits<s64>::max();
    Sequences seen;
    Ranges evicted;
    // How far the system clock was ahead of the process's timer.
    s64 leastAheadMs = std::numeric_limits<s64>::max();
    s64 mostAheadMs = std::numeric_limits<s64>::min();
    std::optional<Account> account;
    u64 accountSequence = 0;
};

struct Host {
    std::string name;
    std::map<std::string, std::unique_ptr<Boot>, std::less<>> boots;
    Cells cells;

    // By the first moment at which a record was made; those that have any.
    std::vector<const Boot*> bootsInOrder() const;
};

struct Maximum {
    u64 value = 0;
    std::string host;
};

// Which records count.
struct Choice {
    std::optional<s64> sinceMs;               // from then on
    std::optional<s64> untilMs;               // before then
    std::set<std::string, std::less<>> hosts; // empty: all
    std::optional<s64> stepMs;                // none: the shortest that fits, see Fleet::stepMs()
};

// What the records of any number of hosts add up to, in any order. Memory grows with hosts times
// steps, and with the runs of sequence numbers of each process, not with the records.
class Fleet {
public:
    explicit Fleet(Choice choice);

    // A record that was there before, or that is not chosen, changes the counts alone.
    void add(const Record& record);

    u64 recordsRead() const { return m_recordsRead; } // of the hosts chosen, with the doubled
    u64 duplicates() const { return m_duplicates; }
    u64 evicted() const { return m_evicted; }
    u64 otherRecords() const { return m_otherRecords; }
    // The one chosen; else the shortest of a ladder that makes at most 1500 steps and is no shorter
    // than the reports' periods, as far as these are up to ten minutes.
    s64 stepMs() const { return m_stepMs; }
    // The first and the last time stamp of those chosen; nothing if there are none.
    std::optional<s64> from() const;
    std::optional<s64> to() const;
    const std::map<std::string, Host, std::less<>>& hosts() const { return m_hosts; }
    const std::map<std::string, Totals, std::less<>>& sets() const { return m_sets; }
    const std::map<std::string, Maximum, std::less<>>& maxima() const { return m_maxima; }
    // Of all hosts together. Limits are the last report's.
    Cells allCells() const;

private:
    bool isChosen(std::string_view host) const;
    Host& hostOf(std::string_view name);
    static Boot& bootOf(Host& host, std::string_view name);
    void addChosen(const Record& record, Host& host);
    void addStorage(const Record& record, Host& host);
    void addMaxima(const Record& record, const Host& host);
    void addEvicted(const Record& record);
    bool isStepTooShort() const;
    void fitStep();

    const Choice m_choice;
    std::map<std::string, Host, std::less<>> m_hosts;
    std::map<std::string, Totals, std::less<>> m_sets;
    std::map<std::string, Maximum, std::less<>> m_maxima;
    u64 m_recordsRead = 0;
    u64 m_duplicates = 0;
    u64 m_evicted = 0;
    u64 m_otherRecords = 0;
    s64 m_fromMs = std::numeric_limits<s64>::max();
    s64 m_toMs = std::numeric_limits<s64>::min();
    u64 m_longestPeriodMs = 0;
    std::size_t m_rung = 0; // of the ladder of steps
    s64 m_stepMs;
};

// A name as it is kept: of a long one the begin, and a number that tells it from others.
std::string keptName(std::string_view name);

} // namespace report
