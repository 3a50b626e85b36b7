#pragma once

#include "common/Analytics/AnalyticsParcel.h"

#include <string>

enum class ParcelFormat { Text, JsonLines };

// "2026-11-22T21:49:54.123Z" for milliseconds since the Unix epoch.
std::string isoUtc(u64 epochMs);

// A latency in the unit in which it reads best, to so many digits: "4.986 ms".
std::string latencyText(u32 microseconds, int digits);

// One line of JSON that holds everything the parcel's getters give.
std::string toJsonLine(const AnalyticsParcel& parcel);

// A parcel to read, in lines of at most 80 columns where its own texts are not longer. A storage
// report, which is any parcel with the entries cm1 to cm5, is laid out as a table of the latency
// classes and the figures that came with it; any other parcel as its fields. Entries that have no
// place of their own are listed as "name = value". `inColour` is for a terminal.
std::string toText(const AnalyticsParcel& parcel, bool inColour);
