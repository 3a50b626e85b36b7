#pragma once

#include "common/infra/Timer.h"
#include "tests/support/Test.h"

// What a test arms as the callback of a timer.
using Action = std::function<void()>;

inline ITimer::Cookie cookieOf(Action& action) {
    return reinterpret_cast<ITimer::Cookie>(&action);
}

inline void arm(ITimer& timer, Action& action, u32 delayMs = 0, bool once = true) {
    const auto call = [](ITimer::Cookie cookie) { (*reinterpret_cast<Action*>(cookie))(); };
    timer.addTimer(call, cookieOf(action), delayMs, once);
}
