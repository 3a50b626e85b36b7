#include "host/report/Collector.h"
#include "host/report/Moment.h"
#include "host/report/RecordParser.h"
#include "host/report/Sequences.h"
#include "host/report/TextReport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace report;

const std::string aRecord =
    R"({"schema":1,"host":"a","boot":"b","sequence":7,"service":"s","forwardedAt":)"
    R"("2026-11-23T12:00:01.500Z","eventName":"StoragePeriodicParcel","category":"storage",)"
    R"("account":"KEL","priority":"Normal","value":3,"text":"[Latency Threshold=50000][lt=60000]",)"
    R"("details":"","timeStampMs":1795435200000,"timeStamp":"2026-11-23T12:00:00.000Z",)"
    R"("stringEntries":{},"u32Entries":{"cm1":1,"cm2":2,"cm3":3,"cm4":4,"cm5":5,"cm6":6,)"
    R"("boundFastUs":1000,"p99Us":99},"u64Entries":{"failedIos":8,"periodMs":1000},)"
    R"("longEntries":{},"doubleEntries":{},"intEntries":{}})";

// Parses a line that stands where nothing else may be read.
class Reading : public testing::Test {
protected:
    const char* parse(const std::string& line) {
        m_bytes.assign(line.begin(), line.end());
        m_bytes.resize(line.size() + RecordParser::padding);
        return m_parser.parse({m_bytes.data(), line.size()}, m_record);
    }

    static std::string with(const std::string& from, const std::string& to) {
        std::string line = aRecord;
        return line.replace(line.find(from), from.size(), to);
    }

    std::vector<char> m_bytes;
    RecordParser m_parser;
    Record m_record;
};

TEST_F(Reading, TakesEveryFigureOfAStorageReport) {
    ASSERT_EQ(parse(aRecord), nullptr);
    EXPECT_EQ(m_record.host, "a");
    EXPECT_EQ(m_record.boot, "b");
    EXPECT_EQ(m_record.sequence, 7U);
    EXPECT_EQ(m_record.forwardedAtMs - m_record.timeStampMs, 1500);
    EXPECT_EQ(m_record.kind, Record::Storage);
    EXPECT_EQ(m_record.totals.classes, (std::array<u64, 5>{1, 2, 3, 4, 5}));
    EXPECT_EQ(m_record.totals.longestEpisodeMs, 6U);
    EXPECT_EQ(m_record.totals.failed, 8U);
    EXPECT_EQ(m_record.totals.percentilesUs[P99], 99U);
    EXPECT_EQ(m_record.limits.thresholdUs, 50000U);
    EXPECT_EQ(m_record.limits.boundsUs[0], 1000U);
}

TEST_F(Reading, SaysWhyALineIsNoRecord) {
    const std::vector<std::pair<std::string, const char*>> rows = {
        {"hello", "it is not JSON"},
        {aRecord.substr(0, 100), "it is not JSON"},
        {"[]", "it is no JSON object"},
        {with("\"schema\":1,", ""), "it has no field schema"},
        {with("\"schema\":1", "\"schema\":2"), "its schema is not 1"},
        {with("\"host\":\"a\"", "\"host\":\"\""), "it has no host"},
        {with("\"boot\":\"b\"", "\"boot\":1"), "it has no boot"},
        {with("\"sequence\":7", "\"sequence\":0"), "its sequence is no number from 1"},
        {with("\"sequence\":7", "\"sequence\":1.5"), "its sequence is no number from 1"},
        {with("2026-11-23T12:00:01", "2026-11-31T12:00:01"), "its forwardedAt is no date"},
        {with("1795435200000", "-1"), "its timeStampMs is no time"},
        {with("\"cm1\":1", "\"cm1\":4294967296"), "a u32 entry is above 4294967295"},
        {with("\"failedIos\":8", "\"failedIos\":-8"), "a u64 entry is no number from 0"},
    };
    for (const auto& [line, reason] : rows) {
        const char* const said = parse(line);
        ASSERT_NE(said, nullptr) << line;
        EXPECT_STREQ(said, reason) << line;
    }
}

TEST_F(Reading, AReportWithoutAllClassesIsAnotherEvent) {
    ASSERT_EQ(parse(with("\"cm5\":5,", "")), nullptr);
    EXPECT_EQ(m_record.kind, Record::Other);
}

// ANALYTICS_FUZZ_ROUNDS asks for a longer run.
TEST(ReportFuzz, CountsEveryLineOnceWhateverItsBytes) {
    const char* const asked = std::getenv("ANALYTICS_FUZZ_ROUNDS");
    const u64 rounds = asked == nullptr ? 20'000 : std::strtoull(asked, nullptr, 10);
    std::mt19937_64 random(1); // NOLINT(cert-msc51-cpp): the same bytes each time
    Collector collector({});
    LineSplitter lines = collector.linesOf("fuzz");
    u64 notBlank = 0;
    for (u64 round = 0; round < rounds; ++round) {
        std::string line = aRecord;
        for (u64 changes = random() % 4; changes > 0; --changes) {
            const std::size_t at = random() % line.size();
            const char byte = static_cast<char>(random());
            switch (random() % 4) {
            case 0:
                line[at] = byte == '\n' ? ' ' : byte;
                break;
            case 1:
                line.erase(at, random() % 20);
                line += "}";
                break;
            case 2:
                line.insert(at, aRecord, random() % aRecord.size(), random() % 40);
                break;
            default:
                line[at] = "{}[]\",:09-eE.\\"[random() % 14];
            }
        }
        line += "\n";
        notBlank += line.find_first_not_of(" \t\r\n") == std::string::npos ? 0 : 1;
        std::memcpy(lines.room(), line.data(), line.size());
        lines.bytesAdded(line.size());
    }
    EXPECT_EQ(collector.fleet().recordsRead() + collector.notUnderstood(), notBlank);
    EXPECT_GT(collector.fleet().recordsRead(), rounds / 20);
    EXPECT_GT(collector.notUnderstood(), rounds / 20);
}

std::vector<std::string> splitInPieces(std::string_view text, std::size_t piece) {
    std::vector<std::string> got;
    LineSplitter lines(0, [&](const LineSplitter::Line& line) {
        got.push_back(std::to_string(line.number) + ":" + std::string(line.text) +
                      (line.isTooLong ? "!" : ""));
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
        EXPECT_EQ(splitInPieces("ab\n\nc\nrest", piece),
                  (std::vector<std::string>{"1:ab", "2:", "3:c", "4:rest"}))
            << piece;
    }
}

TEST(LineSplitter, DropsALineBeyondTheLongest) {
    const std::string longest(LineSplitter::longest, 'x');
    EXPECT_EQ(splitInPieces(longest + "y\nnext\n", 100'000),
              (std::vector<std::string>{"1:!", "2:next"}));
    EXPECT_EQ(splitInPieces(longest + "\n", 100'000).front().size(), longest.size() + 2);
}

TEST(Sequences, NamesGapsWhateverTheOrder) {
    std::vector<u64> numbers = {3, 4, 8, 9, 10, 20};
    do {
        Sequences seen;
        for (const u64 number : numbers) {
            ASSERT_TRUE(seen.add(number, static_cast<s64>(number)));
            ASSERT_FALSE(seen.add(number, 0));
        }
        Ranges evicted;
        evicted.add(15, 30);
        evicted.add(12, 15);
        const std::vector<Gap> gaps = seen.gaps(evicted);
        ASSERT_EQ(gaps.size(), 3U);
        EXPECT_EQ(gaps[0].count, 2U);
        EXPECT_TRUE(gaps[0].isFirst);
        EXPECT_EQ(gaps[1].count, 3U);
        EXPECT_EQ(gaps[1].afterMs, 4);
        EXPECT_EQ(gaps[1].beforeMs, 8);
        EXPECT_EQ(gaps[2].count, 1U); // 11: the rest was evicted
    } while (std::next_permutation(numbers.begin(), numbers.end()));
}

TEST(Moment, IsReadAsItIsWritten) {
    for (const char* text : {"1970-01-01T00:00:00.000Z", "2024-02-29T23:59:59.999Z",
                             "2100-03-01T00:00:00.001Z", "9999-12-31T23:59:59.000Z"}) {
        const auto moment = parseMoment(text);
        ASSERT_TRUE(moment) << text;
        EXPECT_EQ(isoText(*moment), text);
    }
    EXPECT_EQ(parseMoment("2026-11-23"), parseMoment("2026-11-23 00:00"));
    for (const char* text : {"", "2026", "2026-13-01", "2025-02-29", "2026-11-23T24:00",
                             "2026-11-23T12", "2026-11-23T12:00:00+01:00", "2026-11-23x"}) {
        EXPECT_FALSE(parseMoment(text)) << text;
    }
}

TEST(Duration, NeedsANumberWithAUnit) {
    EXPECT_EQ(parseDuration("30s"), 30'000);
    EXPECT_EQ(parseDuration("5m"), 300'000);
    EXPECT_EQ(parseDuration("2h"), 7'200'000);
    EXPECT_EQ(parseDuration("1d"), 86'400'000);
    for (const char* text : {"", "5", "0s", "-1s", "1.5h", "5 m", "99999999999999999999s", "m"}) {
        EXPECT_FALSE(parseDuration(text)) << text;
    }
}

TEST(ShownText, FitsItsColumnsWithoutSteeringTheTerminal) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"host", "host"},
        {"exactly ten", "exactly t~"},
        {"exactly10!", "exactly10!"},
        {"a\x1b[31m", "a\\x1b[31m"},
        {"\xc2\x85\xe2\x80\xae", "??"},
        {"\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5",
         "\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5\xe6\x97\xa5~"},
        {"\xff\xe2", "??"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(shown(text, 10), expected);
    }
}

} // namespace
