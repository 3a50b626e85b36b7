#include "host/services/TimerQueue.h"

#include "host/services/Clock.h"

#include <algorithm>

namespace {

constexpr int firstRetrySec = 1;
constexpr int longestRetrySec = 60;

bool comesLater(const Expiry& left, const Expiry& right) {
    return left.dueNs != right.dueNs ? left.dueNs > right.dueNs : left.order > right.order;
}

} // namespace

void Expiry::failed() {
    retrySec = static_cast<std::uint8_t>(std::clamp(2 * retrySec, firstRetrySec, longestRetrySec));
}

bool TimerQueue::add(ITimer::Callback callback, ITimer::Cookie cookie, u32 delayMs, bool once,
                     u64 nowNs) {
    const std::size_t needed = m_heap.size() + m_takenOut + 1;
    if (needed > m_heap.capacity()) {
        m_heap.reserve(2 * needed);
    }
    const u64 order = m_nextOrder;
    push({0, 0, callback, cookie, delayMs, 0, once}, nowNs + delayMs * nsPerMs);
    return m_heap.front().order == order;
}

std::optional<Expiry> TimerQueue::popDue(u64 nowNs) {
    if (m_heap.empty() || nowNs < m_heap.front().dueNs) {
        return std::nullopt;
    }
    std::pop_heap(m_heap.begin(), m_heap.end(), comesLater);
    const Expiry first = m_heap.back();
    m_heap.pop_back();
    ++m_takenOut;
    return first;
}

void TimerQueue::rearm(Expiry expiry, u64 nowNs) noexcept {
    --m_takenOut;
    if (expiry.retrySec > 0) {
        push(expiry, nowNs + expiry.retrySec * nsPerSecond);
    } else if (!expiry.once) {
        push(expiry, nowNs + expiry.delayMs * nsPerMs);
    }
}

void TimerQueue::clear() noexcept {
    m_heap.clear();
    m_takenOut = 0;
}

// The heap must have room.
void TimerQueue::push(Expiry expiry, u64 dueNs) noexcept {
    expiry.dueNs = dueNs;
    expiry.order = m_nextOrder++;
    m_heap.push_back(expiry);
    std::push_heap(m_heap.begin(), m_heap.end(), comesLater);
}
