#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <ctime>

constexpr u64 nsPerUs = 1'000;
constexpr u64 nsPerMs = 1'000'000;
constexpr u64 nsPerSecond = 1'000'000'000;

ANALYTICS_TAG inline u64 readClockNs(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<u64>(time.tv_sec) * nsPerSecond + static_cast<u64>(time.tv_nsec);
}

ANALYTICS_TAG inline u64 monotonicNs() {
    return readClockNs(CLOCK_MONOTONIC);
}
