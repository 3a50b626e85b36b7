#pragma once

#include "common/infra/Export.h"

#include <pthread.h>

#include <array>
#include <atomic>

// The number of the calling thread's own latency counters. It belongs to one living thread at a
// time, so the counters have one writer and need no atomic exchange. The first threads that ask get
// a number each, and give it back when they end.
//
// A thread gives its number back after the destructors of its thread_local objects, which can still
// use it. If a destructor of thread-specific data (pthread_key_create) takes a number again, the
// next round of these destructors gives it back.
class ANALYTICS_EXPORT ThreadLane {
public:
    static constexpr unsigned int count = 16;

    // The calling thread's, below `count`; `count` if it has none.
    static unsigned int mine() {
        if (__builtin_expect(m_mine == unasked, 0)) {
            m_mine = take();
        }
        return m_mine;
    }

    // The same for a thread that has asked before; `count` for one that has not.
    static unsigned int known() { return m_mine < count ? m_mine : count; }

private:
    static constexpr unsigned int unasked = count + 1;

    // Calls giveBack() at the end of each thread that has set it.
    struct AtThreadEnd {
        AtThreadEnd() : isMade(pthread_key_create(&key, giveBack) == 0) {}

        pthread_key_t key{};
        const bool isMade;
    };

    __attribute__((noinline)) static unsigned int take() {
        static const AtThreadEnd atThreadEnd;
        unsigned int lane = 0;
        while (lane < count && m_taken[lane].exchange(true, std::memory_order_acquire)) {
            ++lane;
        }
        if (lane < count &&
            !(atThreadEnd.isMade && pthread_setspecific(atThreadEnd.key, &m_taken[lane]) == 0)) {
            m_taken[lane].store(false, std::memory_order_release); // nobody would give it back
            lane = count;
        }
        return lane;
    }

    // First m_mine, so that the thread has left the lane when another one takes it.
    static void giveBack(void* taken) {
        m_mine = unasked;
        static_cast<std::atomic<bool>*>(taken)->store(false, std::memory_order_release);
    }

    inline static std::array<std::atomic<bool>, count> m_taken{};
    // One load and no call to find it, also in a shared object.
    __attribute__((tls_model("initial-exec"))) inline static thread_local unsigned int m_mine =
        unasked;
};
