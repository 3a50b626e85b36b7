#include "host/report/RecordParser.h"

#include "host/report/Moment.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>

namespace report {

namespace {

using simdjson::dom::element;
using simdjson::dom::object;

// Thrown for a line that is no record. Caught in parse().
struct NoRecord {
    const char* reason;
};

template <typename Value>
Value expect(element value, const char* reason) {
    Value result{};
    if (value.get(result) != simdjson::SUCCESS) {
        throw NoRecord{reason};
    }
    return result;
}

u32 expectU32(element value) {
    const auto number = expect<u64>(value, "a u32 entry is no number from 0");
    if (number > std::numeric_limits<u32>::max()) {
        throw NoRecord{"a u32 entry is above 4294967295"};
    }
    return static_cast<u32>(number);
}

Record::Kind kindOf(std::string_view eventName) {
    constexpr std::array<std::pair<std::string_view, Record::Kind>, 3> kinds = {
        {{"HostMaximaParcel", Record::Maxima},
         {"ForwardingAccountParcel", Record::Account},
         {"RecordsEvictedParcel", Record::Evicted}}};
    for (const auto& [name, kind] : kinds) {
        if (eventName == name) {
            return kind;
        }
    }
    return Record::Other;
}

// The fields of a line that the reader uses.
struct Fields {
    std::optional<element> schema;
    std::optional<element> host;
    std::optional<element> boot;
    std::optional<element> sequence;
    std::optional<element> forwardedAt;
    std::optional<element> timeStampMs;
    std::optional<element> eventName;
    std::optional<element> text;
    std::optional<element> strings;
    std::optional<element> u32s;
    std::optional<element> u64s;
};

Fields fieldsOf(object line) {
    constexpr std::array<std::pair<std::string_view, std::optional<element> Fields::*>, 11> names =
        {{{"schema", &Fields::schema},
          {"host", &Fields::host},
          {"boot", &Fields::boot},
          {"sequence", &Fields::sequence},
          {"forwardedAt", &Fields::forwardedAt},
          {"timeStampMs", &Fields::timeStampMs},
          {"eventName", &Fields::eventName},
          {"text", &Fields::text},
          {"stringEntries", &Fields::strings},
          {"u32Entries", &Fields::u32s},
          {"u64Entries", &Fields::u64s}}};
    Fields fields;
    for (const auto field : line) {
        for (const auto& [name, member] : names) {
            if (field.key == name) {
                fields.*member = field.value;
                break;
            }
        }
    }
    return fields;
}

element present(const std::optional<element>& field, const char* reason) {
    if (!field) {
        throw NoRecord{reason};
    }
    return *field;
}

std::string_view expectName(const std::optional<element>& field, const char* reason) {
    const auto name = expect<std::string_view>(present(field, reason), reason);
    if (name.empty()) {
        throw NoRecord{reason};
    }
    return name;
}

void readOrigin(const Fields& fields, Record& record) {
    const element schema = present(fields.schema, "it has no field schema");
    u64 number = 0;
    if (schema.get(number) != simdjson::SUCCESS || number != 1) {
        throw NoRecord{"its schema is not 1"};
    }
    record.host = expectName(fields.host, "it has no host");
    record.boot = expectName(fields.boot, "it has no boot");
    constexpr const char* noSequence = "its sequence is no number from 1";
    record.sequence = expect<u64>(present(fields.sequence, noSequence), noSequence);
    if (record.sequence == 0 || record.sequence == std::numeric_limits<u64>::max()) {
        throw NoRecord{noSequence};
    }
}

// No date after the year 9999 has a text.
constexpr s64 lastMoment = 253'402'300'799'999;

void readMoments(const Fields& fields, Record& record) {
    constexpr const char* noDate = "its forwardedAt is no date";
    const auto moment = parseMoment(expectName(fields.forwardedAt, noDate));
    if (!moment) {
        throw NoRecord{noDate};
    }
    record.forwardedAtMs = *moment;
    constexpr const char* noStamp = "its timeStampMs is no time";
    record.timeStampMs = expect<s64>(present(fields.timeStampMs, noStamp), noStamp);
    if (record.timeStampMs < 0 || record.timeStampMs > lastMoment) {
        throw NoRecord{noStamp};
    }
}

// Where an entry of a storage report goes.
struct U32Place {
    std::string_view key;
    u32* place;
};

u32 thresholdOf(std::string_view text) {
    constexpr std::string_view opening = "[Latency Threshold=";
    const auto start = text.find(opening);
    u32 threshold = 0;
    if (start != std::string_view::npos) {
        const char* begin = text.data() + start + opening.size();
        static_cast<void>(std::from_chars(begin, text.data() + text.size(), threshold));
    }
    return threshold;
}

// Returns whether these are the entries of a storage report, and fills them into `record`.
bool readU32s(object entries, Record& record) {
    std::array<u32, classCount> classes{};
    u32 episodes = 0;
    auto& percentiles = record.totals.percentilesUs;
    auto& bounds = record.limits.boundsUs;
    const std::array<U32Place, 16> places = {{{"cm1", &classes[0]},
                                              {"cm2", &classes[1]},
                                              {"cm3", &classes[2]},
                                              {"cm4", &classes[3]},
                                              {"cm5", &classes[4]},
                                              {"cm6", &record.totals.longestEpisodeMs},
                                              {"episodes", &episodes},
                                              {"p50Us", &percentiles[P50]},
                                              {"p90Us", &percentiles[P90]},
                                              {"p99Us", &percentiles[P99]},
                                              {"p999Us", &percentiles[P999]},
                                              {"maxUs", &percentiles[Max]},
                                              {"boundFastUs", &bounds[0]},
                                              {"boundModerateUs", &bounds[1]},
                                              {"boundSlowUs", &bounds[2]},
                                              {"boundVerySlowUs", &bounds[3]}}};
    unsigned int seen = 0;
    for (const auto entry : entries) {
        for (std::size_t i = 0; i < places.size(); ++i) {
            if (entry.key == places[i].key) {
                *places[i].place = expectU32(entry.value);
                seen |= 1U << i;
                break;
            }
        }
    }
    std::copy(classes.begin(), classes.end(), record.totals.classes.begin());
    record.totals.episodes = episodes;
    constexpr unsigned int allClasses = (1U << classCount) - 1;
    return (seen & allClasses) == allClasses;
}

void readU64s(object entries, Record& record) {
    for (const auto entry : entries) {
        record.numbers.emplace_back(entry.key,
                                    expect<u64>(entry.value, "a u64 entry is no number from 0"));
    }
}

void readStrings(object entries, Record& record) {
    constexpr const char* noText = "a string entry is no string";
    for (const auto entry : entries) {
        if (entry.key == "set") {
            record.set = expect<std::string_view>(entry.value, noText);
        } else if (entry.key == "host") {
            record.evictedHost = expect<std::string_view>(entry.value, noText);
        } else if (entry.key == "boot") {
            record.evictedBoot = expect<std::string_view>(entry.value, noText);
        }
    }
}

void readContent(const Fields& fields, Record& record) {
    record.kind = kindOf(expectName(fields.eventName, "it has no eventName"));
    readU64s(expect<object>(present(fields.u64s, "it has no u64Entries"),
                            "its u64Entries are no object"),
             record);
    readStrings(expect<object>(present(fields.strings, "it has no stringEntries"),
                               "its stringEntries are no object"),
                record);
    if (!readU32s(expect<object>(present(fields.u32s, "it has no u32Entries"),
                                 "its u32Entries are no object"),
                  record)) {
        return;
    }
    record.kind = Record::Storage;
    record.totals.reports = 1;
    record.totals.failed = record.number("failedIos");
    record.periodMs = record.number("periodMs");
    record.totals.episodeSumMs = record.number("episodeSumMs");
    const element text = present(fields.text, "it has no text");
    record.limits.thresholdUs =
        thresholdOf(expect<std::string_view>(text, "its text is no string"));
}

} // namespace

const std::size_t RecordParser::padding = simdjson::SIMDJSON_PADDING;

struct RecordParser::Implementation {
    simdjson::dom::parser parser;
};

RecordParser::RecordParser() : m_implementation(std::make_unique<Implementation>()) {}

RecordParser::~RecordParser() = default;

const char* RecordParser::parse(std::string_view line, Record& record) {
    std::vector<std::pair<std::string_view, u64>> numbers = std::move(record.numbers);
    numbers.clear();
    record = Record();
    record.numbers = std::move(numbers);
    element root;
    constexpr bool isPadded = true;
    if (m_implementation->parser.parse(line.data(), line.size(), !isPadded).get(root) !=
        simdjson::SUCCESS) {
        return "it is not JSON";
    }
    try {
        const Fields fields = fieldsOf(expect<object>(root, "it is no JSON object"));
        readOrigin(fields, record);
        readMoments(fields, record);
        readContent(fields, record);
    } catch (const NoRecord& error) {
        return error.reason;
    }
    return nullptr;
}

} // namespace report
