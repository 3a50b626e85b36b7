#include "host/report/Collector.h"
#include "host/report/Moment.h"
#include "host/report/RecordParser.h"
#include "host/report/Sequences.h"
#include "host/report/TextReport.h"
#include "tests/support/Test.h"

#include <fmt/format.h>

namespace {

using namespace report;

const std::string aRecord =
    R"({"schema":1,"host":"a","boot":"b","sequence":7,"service":"s","forwardedAt":)"
    R"("2026-11-23T12:00:01.500Z","eventName":"StoragePeriodicParcel","category":"storage",)"
    R"("account":"KEL","priority":"Normal","value":3,"text":"[Latency Threshold=50000][lt=60000]",)"
    R"("details":"","timeStampMs":1795435200000,"timeStamp":"2026-11-23T12:00:00.000Z",)"
    R"("stringEntries":{},"u32Entries":{"cm1":1,"cm2":2,"cm3":3,"cm4":4,"cm5":5},)"
    R"("u64Entries":{"failedIos":8},"longEntries":{},"doubleEntries":{},"intEntries":{}})";

// Parses each line where nothing else may be read. The rows with "a record" are the edges.
TEST(RecordParser, TakesARecordOrSaysWhyALineIsNone) {
    const std::vector<std::array<std::string, 3>> rows = {
        {aRecord, "hello", "it is not JSON"},
        {aRecord, "[]", "it is no JSON object"},
        {R"("schema":1,)", "", "it has no field schema"},
        {R"("schema":1)", R"("schema":2)", "its schema is not 1"},
        {R"("host":"a")", R"("host":"")", "it has no host"},
        {R"("boot":"b")", R"("boot":1)", "it has no boot"},
        {R"("sequence":7)", R"("sequence":0)", "its sequence is no number from 1"},
        {":7", ":18446744073709551614", "a record"},
        {":7", ":18446744073709551615", "its sequence is no number from 1"},
        {R"("forwardedAt":)", R"("at":)", "its forwardedAt is no date"},
        {"2026-11-23T12:00:01", "2026-11-31T12:00:01", "its forwardedAt is no date"},
        {"1795435200000", "-1", "its timeStampMs is no time"},
        {"1795435200000", "253402300799999", "a record"},
        {"1795435200000", "253402300800000", "its timeStampMs is no time"},
        {R"("StoragePeriodicParcel")", R"("")", "it has no eventName"},
        {R"("text":)", R"("t":)", "it has no text"},
        {R"("[Latency Threshold=50000][lt=60000]")", "7", "its text is no string"},
        {R"("stringEntries":{})", R"("stringEntries":[])", "its stringEntries are no object"},
        {R"("stringEntries":{)", R"("stringEntries":{"set":1)", "a string entry is no string"},
        {"u32Entries", "u", "it has no u32Entries"},
        {"u64Entries", "u", "it has no u64Entries"},
        {R"("cm1":1)", R"("cm1":"1")", "a u32 entry is no number from 0"},
        {R"("cm1":1)", R"("cm1":4294967295)", "a record"},
        {R"("cm1":1)", R"("cm1":4294967296)", "a u32 entry is above 4294967295"},
        {R"("failedIos":8)", R"("failedIos":-8)", "a u64 entry is no number from 0"},
    };
    RecordParser parser;
    Record record;
    for (const auto& [from, to, reason] : rows) {
        std::string line = aRecord;
        line.replace(line.find(from), from.size(), to);
        std::vector<char> bytes(line.begin(), line.end());
        bytes.resize(line.size() + RecordParser::padding);
        const char* const wrong = parser.parse({bytes.data(), line.size()}, record);
        EXPECT_EQ(wrong == nullptr ? "a record" : wrong, reason) << to;
    }
}

// ANALYTICS_FUZZ_ROUNDS asks for a longer run.
TEST(ReportFuzz, CountsEveryLineOnceWhateverItsBytes) {
    const char* const asked = std::getenv("ANALYTICS_FUZZ_ROUNDS");
    const u64 rounds = asked == nullptr ? 20'000 : std::strtoull(asked, nullptr, 10);
    std::mt19937_64 random(1); // NOLINT(cert-msc51-cpp): the same bytes each time
    Collector collector({});
    LineSplitter lines = collector.linesOf("fuzz");
    const std::string pieces = aRecord + "{}[]\",:09-eE.\\\r\t\x80\xff\xe2\xf0";
    for (u64 round = 0; round < rounds; ++round) {
        std::string line = aRecord;
        for (u64 changes = random() % 4; changes > 0; --changes) {
            const std::size_t at = random() % line.size();
            const std::size_t piece = pieces.size() - 1 - random() % (1U << random() % 9);
            line.replace(at, random() % 5, pieces, piece, random() % 30);
        }
        line += "\n";
        std::memcpy(lines.room(), line.data(), line.size());
        lines.bytesAdded(line.size());
    }
    EXPECT_EQ(collector.fleet().recordsRead() + collector.notUnderstood(), rounds);
    EXPECT_GT(collector.fleet().recordsRead(), rounds / 20);
    EXPECT_GT(collector.notUnderstood(), rounds / 20);
}

// Long lines by their length.
std::string splitInPieces(std::string_view text, std::size_t piece) {
    std::string got;
    LineSplitter lines(0, [&](const LineSplitter::Line& line) {
        const std::size_t size = line.text.size();
        got += fmt::format("{}:{}{} ", line.number,
                           size < 9 ? std::string(line.text) : std::to_string(size),
                           line.isTooLong ? "!" : "");
    });
    while (!text.empty()) {
        const std::size_t count = std::min({piece, text.size(), lines.roomSize()});
        std::memcpy(lines.room(), text.data(), count);
        lines.bytesAdded(count);
        text.remove_prefix(count);
    }
    lines.finish();
    return got;
}

TEST(LineSplitter, GivesTheSameLinesInAnyPieces) {
    for (const std::size_t piece : {1U, 2U, 3U, 100U}) {
        EXPECT_EQ(splitInPieces("ab\n\nc\nrest", piece), "1:ab 2: 3:c 4:rest ") << piece;
    }
    const std::string longest(LineSplitter::longest, 'x');
    EXPECT_EQ(splitInPieces(longest + "\n", 1U << 16U), "1:16777216 ");
    EXPECT_EQ(splitInPieces(longest + "y\nnext\n", 100'000), "1:! 2:next ");
    EXPECT_EQ(splitInPieces("a\n" + longest + "y", 100'000), "1:a 2:! ") << "the last line";
}

TEST(Ranges, AreOneWhereTheyOverlap) {
    Ranges ranges;
    std::string text;
    for (const auto& [first, last] : {std::pair(5, 6), {1, 2}, {2, 3}, {9, 12}, {5, 10}, {4, 20}}) {
        ranges.add(first, last);
        for (const auto& [from, to] : ranges.ranges()) {
            text += fmt::format("{}-{} ", from, to);
        }
        text += "; ";
    }
    EXPECT_EQ(text, "5-6 ; 1-2 5-6 ; 1-3 5-6 ; 1-3 5-6 9-12 ; 1-3 5-12 ; 1-3 4-20 ; ");
}

std::string readMoment(const char* text) {
    const auto moment = parseMoment(text);
    return moment ? isoText(*moment) : "no moment";
}

TEST(Moment, IsReadAsItIsWritten) {
    for (const char* text :
         {"1970-01-01T00:00:00.000Z", "2024-02-29T23:59:59.999Z", "2100-03-01T00:00:00.001Z",
          "9999-12-31T23:59:59.000Z", "2000-02-29T12:34:56.789Z", "1969-12-31T23:59:59.999Z"}) {
        EXPECT_EQ(readMoment(text), text);
    }
    const std::vector<std::pair<const char*, const char*>> rows = {
        {"2026-11-23", "2026-11-23T00:00:00.000Z"},
        {"2026-11-23 01:02", "2026-11-23T01:02:00.000Z"},
        {"2026-11-23T23:59Z", "2026-11-23T23:59:00.000Z"},
        {"2026-11-23T12:00:60", "2026-11-23T12:01:00.000Z"}, // a leap second
        {"2026-11-23T12:00:00.5", "2026-11-23T12:00:00.500Z"},
        {"2026-11-23T12:00:00.0129Z", "2026-11-23T12:00:00.012Z"},
    };
    for (const auto& [text, same] : rows) {
        EXPECT_EQ(readMoment(text), same) << text;
    }
    for (const char* text :
         {"", "2026", "2026-13-01", "2026-00-01", "2026-11-00", "2026-11-31", "2025-02-29",
          "2100-02-29", "2026-11-23T24:00", "2026-11-23T12:60", "2026-11-23T12:00:61",
          "2026-11-23T12", "2026-11-23T12:00:00+01:00", "2026-11-23x", "2026-11-23Z",
          "2026-11-23T12:00:00.", "2026-11-23T12:00.5", "2026-11-23T12:00ZZ", "26-11-23"}) {
        EXPECT_EQ(readMoment(text), "no moment") << text;
    }
}

TEST(Duration, ReadsInItsUnit) {
    std::string texts;
    for (const double ms : {0.0, 0.254, 999.0, 1e3, 2.5e3, 119'999.0, 120e3, 7'199'999.0, 7200e3,
                            99 * 3600e3, 172'799'999.0, 172'800e3, 150 * 86400e3}) {
        texts += durationText(ms) + ", ";
    }
    EXPECT_EQ(texts,
              "0 ms, 0.254 ms, 999 ms, 1 s, 2.5 s, 120 s, 2 min, 120 min, 2 h, 4.12 d, 48 h, "
              "2 d, 150 d, ");
}

TEST(Duration, NeedsANumberWithAUnit) {
    std::string read;
    for (const char* text : {"30s", "5m", "2h", "1000000d", "", "5", "0s", "-1s", "1.5h", "5 m",
                             "1000001s", "99999999999999999999s", "m", "5w"}) {
        read += std::to_string(parseDuration(text).value_or(0)) + " ";
    }
    EXPECT_EQ(read, "30000 300000 7200000 86400000000000 0 0 0 0 0 0 0 0 0 0 ");
}

TEST(ShownText, FitsItsColumnsWithoutSteeringTheTerminal) {
    // NOLINTBEGIN(misc-misleading-bidirectional): it is what is not shown
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"exactly ten", "exactly t~"},
        {"exactly10!", "exactly10!"},
        {"a\x1b[31m", "a\\x1b[31m"},
        {"\xc2\x85\xe2\x80\xae", "??"},
        {"\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5",
         "\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5~"},
        {"\xff\xe2", "??"},
        {"123456789\x1b", "123456789~"},
        {"\xc3\x1b[m", "?\\x1b[m"}, // no continuation of the character before
        {"\xe0\x80\x9b", "?"},      // a control character in more bytes than it needs
        {"\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"},
        // The last one that steers and the first one that does not, at each edge.
        {"\xc2\x9f\xc2\xa0", "?\xc2\xa0"},
        {"\xe2\x80\x8a\xe2\x80\x8b \xe2\x80\x8f\xe2\x80\x90", "\xe2\x80\x8a? ?\xe2\x80\x90"},
        {"\xe2\x80\xa7\xe2\x80\xa8 \xe2\x80\xae\xe2\x80\xaf", "\xe2\x80\xa7? ?\xe2\x80\xaf"},
        {"\xe2\x81\xa5\xe2\x81\xa6 \xe2\x81\xa9\xe2\x81\xaa", "\xe2\x81\xa5? ?\xe2\x81\xaa"},
        {"\xef\xbb\xbf", "?"},
        // One column each, and two.
        {"123456789\xe1\x83\xbf", "123456789\xe1\x83\xbf"},
        {"123456789\xe1\x84\x80", "123456789~"},
    };
    // NOLINTEND(misc-misleading-bidirectional)
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(shown(text, 10), expected);
    }
}

} // namespace
