#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"
#include "host/forwarding/IsoTime.h"
#include "host/forwarding/Record.h"

#include <string>
#include <string_view>
#include <vector>

struct ANALYTICS_TAG RecordFields;

// Makes records' lines of parcels. docs/records.md describes the fields; the writer and the schema
// come from one table of them. One thread at a time.
class ANALYTICS_TAG RecordWriter {
public:
    RecordWriter(const Origin& origin, std::string_view service);

    // One JSON object that holds everything the parcel's getters give, and a line feed.
    std::string line(const AnalyticsParcel& parcel, u64 sequence, u64 forwardedAtMs);

private:
    friend RecordFields;

    // JSON tokens that are in every record.
    const std::string m_host;
    const std::string m_boot;
    const std::string m_service;
    std::vector<std::string> m_keys; // of the table's fields, with what stands before and behind

    IsoTime m_stamps;
    IsoTime m_forwardings;
    std::size_t m_longest = 0; // of the lines so far
};

// The JSON Schema (draft 2020-12) of a record.
ANALYTICS_TAG std::string recordSchema();

// The fields, in their order, with what each means, as rows of the table in docs/records.md.
ANALYTICS_TAG std::string recordFieldRows();
