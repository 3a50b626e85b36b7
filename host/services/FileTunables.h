#pragma once

#include "common/infra/Defs.h"

#include <array>
#include <cstddef>
#include <limits>
#include <string>

// The interval between reports, in seconds. The timer takes milliseconds in 32 bits.
constexpr const char* intervalTunable = "t_StorageAnalyticsIntervalSec";
constexpr u32 defaultIntervalSecs = 86400;
constexpr u32 mostIntervalSecs = std::numeric_limits<u32>::max() / OneSecondInMs;

enum class TunableKind { Flag, Number };

// A tunable that can be in a file. A flag is 0 or 1.
struct FileTunable {
    const char* name;
    TunableKind kind;
    u32 least;
    u32 most;
    bool isLive; // else read at the start alone
    u32 (*get)();
    void (*set)(u32); // of a live one: does not fail
};

constexpr std::size_t fileTunableCount = 7;
constexpr std::size_t firstBound = 3; // from here on strictly ascending

// One value for each tunable that can be in a file.
using FileTunableValues = std::array<u32, fileTunableCount>;

// Those that are not live come first.
extern const std::array<FileTunable, fileTunableCount> fileTunables;

FileTunableValues fileTunablesInForce();
std::string toText(const FileTunable& tunable, u32 value);
