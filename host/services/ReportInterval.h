#pragma once

#include "common/infra/Defs.h"

#include <limits>

// The tunable that holds the seconds between two reports.
constexpr const char* reportIntervalName = "t_StorageAnalyticsIntervalSec";
constexpr unsigned int defaultReportIntervalSec = 86400;
// The timer takes milliseconds in 32 bits.
constexpr u32 maxReportIntervalSec = std::numeric_limits<u32>::max() / OneSecondInMs;
