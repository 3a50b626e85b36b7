#pragma once

#include "common/infra/Export.h"

#include <array>
#include <atomic>

// A small number that belongs to one living thread at a time, so that what is kept for a number is
// written by one thread and needs no atomic exchange. The first threads to ask get one, and give it
// back when they end.
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

    struct GiveBack {
        ~GiveBack() {
            if (m_mine < count) {
                m_taken[m_mine].store(false, std::memory_order_release);
            }
            m_mine = count;
        }
    };

    __attribute__((noinline)) static unsigned int take() {
        static thread_local GiveBack atThreadEnd;
        unsigned int lane = 0;
        while (lane < count && m_taken[lane].exchange(true, std::memory_order_acquire)) {
            ++lane;
        }
        return lane;
    }

    inline static std::array<std::atomic<bool>, count> m_taken{};
    // One load and no call to find it, also in a shared object.
    __attribute__((tls_model("initial-exec"))) inline static thread_local unsigned int m_mine =
        unasked;
};
