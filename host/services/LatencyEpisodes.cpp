#include "host/services/LatencyEpisodes.h"

#include <algorithm>
#include <utility>

void LatencyEpisodes::completed(bool slow, u64 startNs, u64 nowNs) {
    if (slow) {
        noteSlow(startNs, nowNs);
    } else if (m_isOpen && startNs > m_lastSlowStartNs) {
        count(nowNs);
        m_isOpen = false;
    }
}

LatencyEpisodes::Summary LatencyEpisodes::closePeriod(std::optional<u64> slowInFlightNs,
                                                      u64 nowNs) {
    if (slowInFlightNs) {
        noteSlow(*slowInFlightNs, nowNs);
        count(nowNs);
    } else if (m_isOpen) {
        count(m_lastSlowEndNs);
        m_isOpen = false;
    }
    return std::exchange(m_summary, {});
}

void LatencyEpisodes::noteSlow(u64 startNs, u64 nowNs) {
    m_beginNs = std::max(m_isOpen ? std::min(m_beginNs, startNs) : startNs, m_previousEndNs);
    m_lastSlowStartNs = m_isOpen ? std::max(m_lastSlowStartNs, startNs) : startNs;
    m_lastSlowEndNs = nowNs;
    m_isOpen = true;
}

// Counts the open episode up to its end; what comes after is another one.
void LatencyEpisodes::count(u64 endNs) {
    if (endNs <= m_beginNs) {
        return; // nothing of it is in this period
    }
    ++m_summary.episodes;
    m_summary.sumNs += endNs - m_beginNs;
    m_summary.longestNs = std::max(m_summary.longestNs, endNs - m_beginNs);
    m_previousEndNs = m_beginNs = endNs;
}
