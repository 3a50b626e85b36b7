#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"

#include <string>

// "KEL" or "QEM"; "Normal", "High" or "Critical".
ANALYTICS_TAG const char* accountName(AnalyticsParcel::AccountType account);
ANALYTICS_TAG const char* priorityName(AnalyticsParcel::Priority priority);

enum class ParcelFormat { Text, JsonLines };

// A parcel to read, in lines of at most 80 columns where its own texts are not longer. A storage
// report, which is any parcel with the entries cm1 to cm5, is laid out as a table of the latency
// classes and the figures that came with it; any other parcel as its fields. Entries that have no
// place of their own are listed as "name = value". `inColour` is for a terminal.
ANALYTICS_TAG std::string formatParcel(const AnalyticsParcel& parcel, bool inColour);
