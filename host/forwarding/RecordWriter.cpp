#include "host/forwarding/RecordWriter.h"

#include "host/forwarding/JsonText.h"
#include "host/forwarding/ParcelFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace {

struct FieldType {
    const char* name;   // for readers
    const char* schema; // JSON
};

constexpr FieldType version{"the number 1", R"({"const": 1})"};
constexpr FieldType text{"string", R"({"type": "string"})"};
constexpr FieldType name{"string, not empty", R"({"type": "string", "minLength": 1})"};
constexpr FieldType ordinal{"integer from 1", R"({"type": "integer", "minimum": 1})"};
constexpr FieldType u32Number{"integer of 32 bits",
                              R"({"type": "integer", "minimum": 0, "maximum": 4294967295})"};
constexpr FieldType u64Number{
    "integer of 64 bits", R"({"type": "integer", "minimum": 0, "maximum": 18446744073709551615})"};
constexpr FieldType moment{
    "ISO 8601, UTC",
    R"({"type": "string", "pattern": "^[0-9]{4,}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z$"})"};
constexpr FieldType account{"`KEL` or `QEM`", R"({"enum": ["KEL", "QEM"]})"};
constexpr FieldType priority{"`Normal`, `High` or `Critical`",
                             R"({"enum": ["Normal", "High", "Critical"]})"};
constexpr FieldType strings{"object of strings",
                            R"({"type": "object", "additionalProperties": {"type": "string"}})"};
constexpr FieldType u32s{
    "object of integers of 32 bits",
    R"({"type": "object", "additionalProperties": {"type": "integer", "minimum": 0, "maximum": 4294967295}})"};
constexpr FieldType u64s{
    "object of integers of 64 bits",
    R"({"type": "object", "additionalProperties": {"type": "integer", "minimum": 0, "maximum": 18446744073709551615}})"};
constexpr FieldType longs{
    "object of signed integers of 64 bits",
    R"({"type": "object", "additionalProperties": {"type": "integer", "minimum": -9223372036854775808, "maximum": 9223372036854775807}})"};
constexpr FieldType doubles{
    "object of strings",
    R"({"type": "object", "additionalProperties": {"type": "string", "pattern": "^-?([0-9]+\\.[0-9]{6}|nan|inf)$"}})"};
constexpr FieldType ints{
    "object of signed integers of 32 bits",
    R"({"type": "object", "additionalProperties": {"type": "integer", "minimum": -2147483648, "maximum": 2147483647}})"};

std::string quoted(std::string_view raw) {
    std::string literal;
    appendJsonString(literal, raw);
    return literal;
}

void appendValue(std::string& out, const std::string& value) {
    appendJsonString(out, value);
}
template <typename Integer>
void appendValue(std::string& out, Integer value) {
    appendJsonNumber(out, value);
}

template <typename Map>
void appendEntries(std::string& out, const Map& entries) {
    char separator = '{';
    for (const auto& [key, value] : entries) {
        out += separator;
        appendJsonString(out, key);
        out += ':';
        appendValue(out, value);
        separator = ',';
    }
    out += entries.empty() ? "{}" : "}";
}

void appendMoment(std::string& out, IsoTime& time, u64 epochMs) {
    out += '"';
    time.append(out, epochMs);
    out += '"';
}

} // namespace

// The table. What is written for a field is one JSON value.
struct RecordFields {
    struct Given {
        RecordWriter& writer;
        const AnalyticsParcel& parcel;
        u64 sequence;
        u64 forwardedAtMs;
    };
    struct Field {
        const char* name;
        const FieldType& type;
        const char* meaning;
        void (*write)(std::string& out, const Given& given);
    };
    static const std::array<Field, 21> all;
};

using Given = RecordFields::Given;

const std::array<RecordFields::Field, 21> RecordFields::all = {{
    {"schema", version, "version of this format",
     [](std::string& out, const Given&) { out += '1'; }},
    {"host", name, "the machine: `--host-id`, else derived from the machine's id",
     [](std::string& out, const Given& given) { out += given.writer.m_host; }},
    {"boot", name, "the process: random, new in each",
     [](std::string& out, const Given& given) { out += given.writer.m_boot; }},
    {"sequence", ordinal, "number of the record, from 1 without gaps within a boot",
     [](std::string& out, const Given& given) { appendJsonNumber(out, given.sequence); }},
    {"service", name, "`--service`, else the program's name",
     [](std::string& out, const Given& given) { out += given.writer.m_service; }},
    {"forwardedAt", moment, "wall clock when the record was made",
     [](std::string& out, const Given& given) {
         appendMoment(out, given.writer.m_forwardings, given.forwardedAtMs);
     }},
    {"eventName", text, "which event",
     [](std::string& out, const Given& given) {
         appendJsonString(out, given.parcel.getEventName());
     }},
    {"category", text, "what kind of event",
     [](std::string& out, const Given& given) {
         appendJsonString(out, given.parcel.getCategory());
     }},
    {"account", account, "account of the parcel",
     [](std::string& out, const Given& given) {
         appendJsonString(out, accountName(given.parcel.getAccount()));
     }},
    {"priority", priority, "priority of the event",
     [](std::string& out, const Given& given) {
         appendJsonString(out, priorityName(given.parcel.getEventPriority()));
     }},
    {"value", u32Number, "the event's value; of a storage report, mean episode in ms",
     [](std::string& out, const Given& given) { appendJsonNumber(out, given.parcel.getValue()); }},
    {"text", text, "the event's text",
     [](std::string& out, const Given& given) { appendJsonString(out, given.parcel.getText()); }},
    {"details", text, "the event's details",
     [](std::string& out, const Given& given) {
         appendJsonString(out, given.parcel.getDetails());
     }},
    {"timeStampMs", u64Number,
     "stamp of the process timer, in ms since 1970, which a step of the system clock does not "
     "touch",
     [](std::string& out, const Given& given) {
         appendJsonNumber(out, given.parcel.getKelTimeStamp());
     }},
    {"timeStamp", moment, "the same stamp as a date",
     [](std::string& out,
        const Given&
            given) { appendMoment(out, given.writer.m_stamps, given.parcel.getKelTimeStamp()); }},
    {"stringEntries", strings, "entries of type string, by key",
     [](std::string& out, const Given& given) {
         appendEntries(out, given.parcel.getStringEntries());
     }},
    {"u32Entries", u32s, "entries of type u32, by key",
     [](std::string& out,
        const Given& given) { appendEntries(out, given.parcel.getU32Entries()); }},
    {"u64Entries", u64s, "entries of type u64, by key",
     [](std::string& out,
        const Given& given) { appendEntries(out, given.parcel.getU64Entries()); }},
    {"longEntries", longs, "entries of type s64, by key",
     [](std::string& out,
        const Given& given) { appendEntries(out, given.parcel.getLongEntries()); }},
    {"doubleEntries", doubles, "entries of type double, by key, as text with six decimals",
     [](std::string& out, const Given& given) {
         appendEntries(out, given.parcel.getDoubleEntries());
     }},
    {"intEntries", ints, "entries of type int, by key",
     [](std::string& out,
        const Given& given) { appendEntries(out, given.parcel.getIntEntries()); }},
}};

RecordWriter::RecordWriter(const Origin& origin, std::string_view service)
    : m_host(quoted(origin.host)), m_boot(quoted(origin.boot)), m_service(quoted(service)) {
    for (const RecordFields::Field& field : RecordFields::all) {
        m_keys.push_back(fmt::format("{}\"{}\":", m_keys.empty() ? '{' : ',', field.name));
    }
}

std::string RecordWriter::line(const AnalyticsParcel& parcel, u64 sequence, u64 forwardedAtMs) {
    std::string out;
    out.reserve(m_longest);
    const Given given{*this, parcel, sequence, forwardedAtMs};
    for (std::size_t i = 0; i < RecordFields::all.size(); ++i) {
        out += m_keys[i];
        RecordFields::all[i].write(out, given);
    }
    out += "}\n";
    m_longest = std::max(m_longest, out.size());
    return out;
}

std::string recordSchema() {
    std::string properties;
    std::string required;
    for (const RecordFields::Field& field : RecordFields::all) {
        const char* separator = properties.empty() ? "" : ",";
        properties += fmt::format("{}\n    \"{}\": {}", separator, field.name, field.type.schema);
        required += fmt::format("{}\n    \"{}\"", separator, field.name);
    }
    return fmt::format(R"({{
  "$schema": "https://json-schema.org/draft/2020-12/schema",
  "title": "A record of analytics-host",
  "type": "object",
  "properties": {{{}
  }},
  "required": [{}
  ],
  "additionalProperties": false
}}
)",
                       properties, required);
}

std::string recordFieldRows() {
    std::string rows;
    for (const RecordFields::Field& field : RecordFields::all) {
        rows += fmt::format("| `{}` | {} | {} |\n", field.name, field.type.name, field.meaning);
    }
    return rows;
}
