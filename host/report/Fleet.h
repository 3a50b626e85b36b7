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

constexpr s64 tenMinutesMs = 600'000;

// The storage reports of a host whose periods ended within one step.
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

    // Those with records, in the order of their first record's forwardedAt.
    std::vector<const Boot*> bootsInOrder() const;
};

struct Maximum {
    u64 value = 0;
    std::string host;
};

// The records that count. Without a value or a host: all.
struct Choice {
    std::optional<s64> sinceMs;               // the first time stamp that counts
    std::optional<s64> untilMs;               // the first one after it that does not
    std::set<std::string, std::less<>> hosts; // as keptName() gives them
    std::optional<s64> stepMs;                // none: see Fleet::stepMs()
};

// Adds up the records of any number of hosts, in any order. Memory grows with hosts times steps and
// with the gaps in each process's sequence numbers, not with the number of records.
class Fleet {
public:
    explicit Fleet(Choice choice);

    // A record of another host is ignored; a doubled one only changes the counts.
    void add(const Record& record);

    u64 recordsRead() const { return m_recordsRead; } // of the hosts chosen, doubled ones included
    u64 duplicates() const { return m_duplicates; }
    u64 evicted() const { return m_evicted; }
    u64 otherRecords() const { return m_otherRecords; }
    // The step length of --step. Otherwise the shortest standard length that gives at most 1500
    // steps and is not below the report period (periods above ten minutes count as ten).
    s64 stepMs() const { return m_stepMs; }
    // The first and the last time stamp that count; nothing if none does.
    std::optional<s64> from() const;
    std::optional<s64> to() const;
    const std::map<std::string, Host, std::less<>>& hosts() const { return m_hosts; }
    const std::map<std::string, Totals, std::less<>>& sets() const { return m_sets; }
    const std::map<std::string, Maximum, std::less<>>& maxima() const { return m_maxima; }
    // The sum of all hosts. The limits of a step are those of its first and its last report.
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

// Shortens a long name to its beginning and a hash.
std::string keptName(std::string_view name);

} // namespace report
