#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"

#include <sstream>
#include <string>

// A parcel as one text to compare: the header, then each entry with the type of its map:
//
//     name/category/text/details account=1 priority=0 value=7 time=3600000 u32:cm1=5 u64:cd11=3600
ANALYTICS_TAG inline std::string toText(const AnalyticsParcel& parcel) {
    std::ostringstream text;
    text << parcel.getEventName() << "/" << parcel.getCategory() << "/" << parcel.getText() << "/"
         << parcel.getDetails() << " account=" << parcel.getAccount()
         << " priority=" << parcel.getEventPriority() << " value=" << parcel.getValue()
         << " time=" << parcel.getKelTimeStamp();
    const auto addEntries = [&](const char* type, const auto& entries) {
        for (const auto& [key, value] : entries) {
            text << " " << type << ":" << key << "=" << value;
        }
    };
    addEntries("string", parcel.getStringEntries());
    addEntries("u32", parcel.getU32Entries());
    addEntries("u64", parcel.getU64Entries());
    addEntries("long", parcel.getLongEntries());
    addEntries("double", parcel.getDoubleEntries());
    addEntries("int", parcel.getIntEntries());
    return text.str();
}
