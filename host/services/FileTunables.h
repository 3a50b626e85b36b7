#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "host/services/FileTunableValues.h"

#include <array>
#include <cstddef>
#include <string>

enum class TunableKind { Flag, Number };

// A tunable that can be in a file. A flag is 0 or 1.
struct ANALYTICS_TAG FileTunable {
    const char* name;
    TunableKind kind;
    u32 least;
    u32 most;
    bool isLive; // else read at the start alone
    u32 (*get)();
    void (*set)(u32); // of a live one: does not fail
};

constexpr std::size_t firstBound = 3; // from here on strictly ascending

// Those that are not live come first.
ANALYTICS_TAG extern const std::array<FileTunable, fileTunableCount> fileTunables;

ANALYTICS_TAG FileTunableValues fileTunablesInForce();
ANALYTICS_TAG std::string valueText(const FileTunable& tunable, u32 value);
