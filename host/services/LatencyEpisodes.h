#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <optional>

// The times in which storage was slow. An episode
//
//   begins | at the earliest submission known of an I/O that took at least the threshold, but never
//          | before the end of the episode before it
//   ends   | when an I/O that took less, and was submitted after the slow ones, completes
//
// A period that is closed counts an open episode up to that moment if an I/O in flight is slow by
// then, and what comes after as a new one; with none in flight, the episode ends at the last slow
// completion: an idle hour after a slow I/O is no stall.
//
// All times are nanoseconds of one clock. Operations are told them in the clock's order. Not
// synchronised.
class ANALYTICS_EXPORT LatencyEpisodes {
public:
    struct Summary {
        u64 episodes = 0;
        u64 sumNs = 0;
        u64 longestNs = 0;
    };

    bool isOpen() const { return m_isOpen; }

    void completed(bool slow, u64 startNs, u64 nowNs);

    // The episodes of the period that ends now. `slowInFlightNs` is the start of the oldest I/O in
    // flight that is older than the threshold.
    Summary closePeriod(std::optional<u64> slowInFlightNs, u64 nowNs);

private:
    void noteSlow(u64 startNs, u64 nowNs);
    void count(u64 endNs);

    bool m_isOpen = false;
    u64 m_beginNs = 0;
    u64 m_lastSlowStartNs = 0;
    u64 m_lastSlowEndNs = 0;
    u64 m_previousEndNs = 0;
    Summary m_summary; // of the open period
};
