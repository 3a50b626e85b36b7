#include "host/services/InFlightIos.h"

#include <algorithm>
#include <limits>

void InFlightIos::add(InFlightIo& io) {
    io.m_stripe = ThreadLane::mine();
    io.m_previous = nullptr;
    Stripe& stripe = m_stripes[io.m_stripe];
    const CheckedLock lock(stripe.mutex);
    io.m_next = stripe.first;
    if (io.m_next != nullptr) {
        io.m_next->m_previous = &io;
    }
    stripe.first = &io;
}

void InFlightIos::remove(InFlightIo& io) {
    Stripe& stripe = m_stripes[io.m_stripe];
    const CheckedLock lock(stripe.mutex);
    (io.m_previous != nullptr ? io.m_previous->m_next : stripe.first) = io.m_next;
    if (io.m_next != nullptr) {
        io.m_next->m_previous = io.m_previous;
    }
}

std::optional<u64> InFlightIos::oldestStartNs() {
    constexpr u64 none = std::numeric_limits<u64>::max();
    u64 oldest = none;
    for (Stripe& stripe : m_stripes) {
        const CheckedLock lock(stripe.mutex);
        for (const InFlightIo* io = stripe.first; io != nullptr; io = io->m_next) {
            const u64 startNs = io->m_startNs.load(std::memory_order_relaxed);
            oldest = startNs == 0 ? oldest : std::min(oldest, startNs);
        }
    }
    return oldest == none ? std::nullopt : std::optional<u64>(oldest);
}
