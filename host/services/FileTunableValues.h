#pragma once

#include "common/infra/Defs.h"

#include <array>
#include <cstddef>

constexpr std::size_t fileTunableCount = 7;

// One value for each tunable that can be in a file.
using FileTunableValues = std::array<u32, fileTunableCount>;
