#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "host/forwarding/Wakeup.h"

#include <algorithm>
#include <utility>

// Whether records may be sent.
//
//     state      | ends when                          | then
//     -----------+------------------------------------+-----------
//     open       | an attempt has failed: shut()      | draining
//     draining   | nothing is in flight: drained()    | backing off
//     backing off| its time has come, or hurry()      | open
//
// The back-off doubles until a record is delivered. hurry() while draining skips the back-off that
// follows. One thread at a time.
class ANALYTICS_TAG SendGate {
public:
    // Nanoseconds, of the first back-off and of the longest.
    SendGate(u64 firstNs, u64 longestNs) : m_firstNs(firstNs), m_longestNs(longestNs) {}

    bool isOpen(u64 nowNs) const { return !m_isDraining && nowNs >= m_opensNs; }
    bool isDraining() const { return m_isDraining; }
    // When it opens by itself: 0 when it is open.
    u64 opensNs() const { return m_isDraining ? Wakeup::never : m_opensNs; }

    void shut() { m_isDraining = true; }
    void drained(u64 nowNs) {
        m_isDraining = false;
        m_backOffNs = std::clamp(2 * m_backOffNs, m_firstNs, m_longestNs);
        m_opensNs = std::exchange(m_isHurried, false) ? 0 : nowNs + m_backOffNs;
    }
    void delivered() { m_backOffNs = 0; }
    void hurry() {
        m_opensNs = 0;
        m_isHurried = m_isDraining;
    }

private:
    const u64 m_firstNs;
    const u64 m_longestNs;
    bool m_isDraining = false;
    bool m_isHurried = false; // since the draining began
    u64 m_opensNs = 0;
    u64 m_backOffNs = 0; // the last one, 0 after a delivery
};
