#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Timer.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

// A callback and the time at which it is due, in nanoseconds of the monotonic clock.
struct ANALYTICS_TAG Expiry {
    u64 dueNs;
    u64 order; // of arming; decides between equal due times
    ITimer::Callback callback;
    ITimer::Cookie cookie;
    u32 delayMs;
    std::uint8_t retrySec; // until the next attempt of a callback that threw; 0: it did not
    bool once;

    // The result of a delivery. After a failure the next attempt comes in 1 s, doubling up to 60 s.
    void returned() { retrySec = 0; }
    void failed();
};

// The pending expiries of a timer. It reads no clock: the caller passes the time. A heap: adding
// costs at worst the logarithm of the number of expiries.
//
//     queue.add(callback, cookie, 250, true, nowNs);
//     ...
//     if (auto expiry = queue.popDue(nowNs)) {
//         expiry->callback(expiry->cookie);
//         expiry->returned();
//         queue.rearm(*expiry, nowNs);
//     }
//
// Not synchronised.
class ANALYTICS_TAG TimerQueue {
public:
    // True if the new expiry is now the first to come. Throws std::bad_alloc, and adds nothing
    // then.
    bool add(ITimer::Callback callback, ITimer::Cookie cookie, u32 delayMs, bool once, u64 nowNs);
    // Takes out the first expiry, if its due time has come.
    std::optional<Expiry> popDue(u64 nowNs);
    // Puts an expiry back that popDue() took out, if it failed or is periodic. Needs no memory:
    // popDue() and add() keep room for it.
    void rearm(Expiry expiry, u64 nowNs) noexcept;
    // Drops every expiry, also those that are taken out.
    void clear() noexcept;

    // ITimer::NEVER if nothing is pending.
    u64 firstDueNs() const { return m_heap.empty() ? ITimer::NEVER : m_heap.front().dueNs; }

private:
    void push(Expiry expiry, u64 dueNs) noexcept;

    std::vector<Expiry> m_heap; // the first to come in front
    std::size_t m_takenOut = 0; // expiries for which m_heap has room to spare
    u64 m_nextOrder = 0;
};
