#pragma once

#include "common/infra/Defs.h"

#include <map>
#include <string>

// Where every record is, at one moment: pushed + restored = delivered + failed + dropped + evicted
// + waiting, in every snapshot.
struct AccountNumbers {
    u64 pushed = 0;    // into the outbox, or made by the forwarder itself
    u64 restored = 0;  // found in the spool of an earlier run
    u64 delivered = 0; // the sink has them
    u64 failed = 0;    // for good
    u64 dropped = 0;   // at the outbox's bound
    u64 evicted = 0;   // at the spool's bound
    u64 waiting = 0;   // in the outbox, in hand or in the spool

    // Counted beside the sum.
    std::map<std::string, u64> failures; // `failed` by reason
    u64 discarded = 0;                   // reports that a tunable kept from the outbox
    u64 outputLost = 0;                  // not written to the output beside an engine

    bool addsUp() const {
        return pushed + restored == delivered + failed + dropped + evicted + waiting;
    }
};
