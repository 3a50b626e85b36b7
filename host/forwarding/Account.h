#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Lock.h"

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

class IParcel;

// Where every record is, at one moment: pushed + restored = delivered + failed + dropped + evicted
// + waiting, in every snapshot.
struct ANALYTICS_TAG AccountNumbers {
    u64 pushed = 0;    // into the outbox, or made by the forwarder itself
    u64 restored = 0;  // found in the spool of an earlier run
    u64 delivered = 0; // the sink has them
    u64 failed = 0;    // for good
    u64 dropped = 0;   // destroyed in the outbox, at its bound
    u64 evicted = 0;   // at the spool's bound
    u64 waiting = 0;   // in the outbox, in hand or in the spool

    u64 inSpool = 0; // of those that wait

    // Counted beside the sum.
    std::map<std::string, u64> failures; // `failed` by reason
    u64 discarded = 0;                   // reports that a tunable kept from the outbox
    u64 outputLost = 0;                  // not written to the output beside an engine

    bool addsUp() const {
        return pushed + restored == delivered + failed + dropped + evicted + waiting;
    }
    // Records that reach nobody, unless a later run sends what waits in the spool.
    u64 lost() const { return failed + dropped + evicted + waiting - inSpool + outputLost; }
    // "pushed=1 restored=0 delivered=1 failed=0 dropped=0 evicted=0 waiting=0"
    std::string text() const;
};

class ANALYTICS_TAG Account;

// Moves of a batch of records from column to column.
class ANALYTICS_TAG AccountChange {
public:
    enum Column : std::size_t { Hand, Spool, Delivered, Failed, Evicted };

    void move(Column from, Column to, u64 count = 1);
    // To Failed. A throw leaves the change as it was.
    void fail(Column from, const std::string& reason, u64 count = 1);

private:
    friend Account;
    std::array<s64, 5> m_columns{};
    std::map<std::string, u64> m_failures;
};

// The account of an outbox and of its forwarder, from its construction on. A record changes its
// column in one step under the mutex, a batch at a time. Any thread.
class ANALYTICS_TAG Account {
public:
    // Nobody but take() takes parcels out of `outbox` from then on.
    explicit Account(ParcelOutbox& outbox);
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;

    // All parcels of the outbox, which are in hand from then on. A throw leaves them there.
    std::vector<IParcel*> take();
    // Records that the spool held at the start.
    void restore(u64 count);
    // A record that the forwarder made itself; it is in hand.
    void addOwn();
    // A throw leaves everything as it was.
    void apply(const AccountChange& change);

    void addDiscarded();
    void addOutputLost(u64 count);

    AccountNumbers numbers() const;
    u64 waiting() const;

private:
    ParcelOutbox& m_outbox;
    const u64 m_goneBefore; // of the parcels that were ever pushed
    const u64 m_droppedBefore;

    mutable CheckedMutex m_mutex;
    std::array<u64, 5> m_columns ANALYTICS_GUARDED_BY(m_mutex){};
    u64 m_own ANALYTICS_GUARDED_BY(m_mutex) = 0;
    AccountNumbers m_beside ANALYTICS_GUARDED_BY(m_mutex); // what is no column
};
