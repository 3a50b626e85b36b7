#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <memory>
#include <string>

class AnalyticsParcel;

// Who made a record. Shared by the records of a process.
struct ANALYTICS_TAG Origin {
    std::string host; // the machine; the key under which an engine keeps the order
    std::string boot; // the process: random, new in each
};

// One parcel on its way out. docs/records.md describes the line.
struct ANALYTICS_TAG Record {
    u64 ticket = 0;   // the forwarder's number, ascending in the order of sending; this run's only
    u64 sequence = 0; // within the origin, from 1 without gaps
    std::shared_ptr<const Origin> origin;
    std::string line; // one JSON object in UTF-8, ended by a line feed
    // What the line was made of, for sinks that read figures. Null for a record that comes from a
    // spool. Valid within ISink::send() only.
    const AnalyticsParcel* parcel = nullptr;

    // "HOST-BOOT-SEQUENCE": the same each time the record is sent, and no other record's.
    std::string id() const {
        return origin->host + "-" + origin->boot + "-" + std::to_string(sequence);
    }
};
