#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "host/services/LimitsInForce.h"

#include <string>

enum class ParcelFormat { Text, JsonLines };

// "2026-11-22T21:49:54.123Z" for milliseconds since the Unix epoch.
std::string isoUtc(u64 epochMs);

// One line of JSON that holds everything the parcel's getters give.
std::string toJsonLine(const AnalyticsParcel& parcel);

// A parcel to read. The storage report is laid out as a table of the latency classes, whose bounds
// are `limits`; any other parcel as its fields and entries. `inColour` is for a terminal.
std::string toText(const AnalyticsParcel& parcel, const StorageLimits& limits, bool inColour);
