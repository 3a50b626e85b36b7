#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/Record.h"

#include <cstddef>
#include <deque>
#include <optional>
#include <vector>

// The records that are in memory to be sent, oldest first: those in flight and those that wait. One
// thread at a time.
class ANALYTICS_TAG Window {
public:
    struct InFlight {
        bool wasEvicted; // its place in the spool was given up since
    };
    enum class Eviction { NotHere, Waiting, InFlight };

    std::size_t size() const { return m_entries.size(); }
    bool isEmpty() const { return m_entries.empty(); }
    bool hasRoom() const;
    std::size_t inFlight() const { return m_inFlight; }
    bool hasUnsent() const { return m_next < m_entries.size(); }
    // When the oldest record in flight was sent; Wakeup::never if none is.
    u64 oldestSentNs() const;

    // Its ticket is higher than all others. `parcel` is the record's, or null. Both stay the
    // caller's if it throws.
    void add(Record&& record, TrackedPtr<AnalyticsParcel>&& parcel);
    // The next records to send, up to the limits of what may be in flight; they are in flight from
    // then on. They stay where they are until they are answered. A throw leaves all as it was.
    std::vector<const Record*> send(u64 nowNs);
    // The record in flight with this ticket, if there is one.
    std::optional<InFlight> find(u64 ticket);
    // Takes the record in flight with this ticket out.
    void settle(u64 ticket);
    // The record in flight with this ticket waits again, or is taken out if it was evicted. Returns
    // what it was, if there is one.
    std::optional<InFlight> putBack(u64 ticket);
    // The next record to send is the oldest that waits.
    void rewind() { m_next = 0; }
    // The spool gave its place up: takes it out, unless it is in flight.
    Eviction evict(u64 ticket);

    // Those whose place in the spool was not given up.
    std::vector<const Record*> kept() const;

private:
    enum class State { Waiting, InFlight, Done };
    struct Entry {
        Record record;
        TrackedPtr<AnalyticsParcel> parcel{nullptr, TRACKED_DELETE};
        State state = State::Waiting;
        bool isEvicted = false;
        u64 sentNs = 0;
    };

    Entry* entryOf(u64 ticket);
    Entry* findInFlight(u64 ticket);
    void finish(Entry& entry);

    std::deque<Entry> m_entries; // by ticket; the first is not done
    std::size_t m_next = 0;      // no entry before it is to be sent now
    std::size_t m_inFlight = 0;
    std::size_t m_inFlightBytes = 0;
    std::size_t m_bytes = 0;
};
