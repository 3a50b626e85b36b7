#pragma once

#include "common/infra/Export.h"
#include "host/forwarding/Record.h"

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

struct ANALYTICS_TAG SpoolOptions {
    std::string path;
    u64 limitBytes = u64{256} << 20U; // of the records; the file is a little larger
    bool isDurable = false;           // a commit survives a power cut, not only the process
};

// An operation of the spool failed. What was committed stays.
class ANALYTICS_TAG SpoolError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The file is damaged.
class ANALYTICS_TAG SpoolDamage : public SpoolError {
    using SpoolError::SpoolError;
};

// Records of an origin that were evicted: `count` of those from `first` to `last`.
struct ANALYTICS_TAG EvictedRange {
    u64 id = 0; // the spool's
    Origin origin;
    u64 first = 0;
    u64 last = 0;
    u64 count = 0;
};

// What one transaction does, in this order.
struct ANALYTICS_TAG SpoolChange {
    std::vector<u64> done;                 // tickets of records to delete, ascending
    std::vector<const Record*> added;      // by ticket, higher than all before
    std::vector<std::pair<u64, u64>> told; // a range's id, the ticket of the record that tells it
};

// Records in a file that survives the process, oldest first, bounded in bytes: a transaction beyond
// the bound evicts the oldest. The spool remembers evicted ranges until a RecordsEvictedParcel
// about them is delivered. The file is an SQLite database that one process at a time has open.
//
// One thread at a time.
class ANALYTICS_TAG Spool {
public:
    // A damaged file is put aside as FILE.damaged-1 or the next that is free, and logged. Throws
    // std::runtime_error, with path and reason, also if another process has the file.
    explicit Spool(const SpoolOptions& options);
    ~Spool();
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    u64 count() const { return m_count; }
    u64 bytes() const { return m_bytes; }
    u64 lastTicket() const { return m_lastTicket; } // of all that were ever added; 0: none

    // Whether an eighth of the limit is free.
    bool hasRoom() const { return m_bytes <= m_options.limitBytes - m_options.limitBytes / 8; }
    // Whether an evicted range still needs a RecordsEvictedParcel.
    bool hasUntold() const { return m_hasUntold; }

    // Returns the tickets that were evicted, ascending. A throw leaves everything as it was.
    std::vector<u64> commit(const SpoolChange& change);
    // The records with tickets above `ticket`, oldest first. Stops at `maxRecords`, and with the
    // record that reaches `maxBytes`.
    std::vector<Record> read(u64 ticket, std::size_t maxRecords, std::size_t maxBytes);
    // The ranges that still need one.
    std::vector<EvictedRange> untold();

    // Puts a damaged file aside and begins an empty one. After a throw it is to be called again
    // before anything else.
    void startAnew();

private:
    struct Tables;
    struct Totals;

    void open();
    void openOrPutAside();
    void putAside() const;
    std::vector<u64> change(const SpoolChange& change, Totals& totals);
    void remove(const std::vector<u64>& tickets, Totals& totals);
    void insert(const Record& record, Totals& totals);
    std::vector<u64> evict(Totals& totals);

    const SpoolOptions m_options;
    std::unique_ptr<Tables> m_tables;
    u64 m_count = 0;
    u64 m_bytes = 0;
    u64 m_lastTicket = 0;
    bool m_hasUntold = false;
};
