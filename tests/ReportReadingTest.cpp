#include "host/report/Collector.h"
#include "host/report/Moment.h"
#include "host/report/RecordParser.h"
#include "host/report/Sequences.h"
#include "host/report/TextReport.h"

#include <fmt/format.h>
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
    R"("boundFastUs":1000,"boundModerateUs":2000,"boundSlowUs":3000,"boundVerySlowUs":4000,)"
    R"("p50Us":95,"p90Us":96,"p99Us":97,"p999Us":98,"maxUs":99,"episodes":12},)"
    R"("u64Entries":{"failedIos":8,"periodMs":1000,"episodeSumMs":13},)"
    R"("longEntries":{},"doubleEntries":{},"intEntries":{}})";

// Parses a line that stands where nothing else may be read.
class Reading : public testing::Test {
protected:
    // What is wrong with it, or all that it says.
    std::string read(const std::string& line) {
        m_bytes.assign(line.begin(), line.end());
        m_bytes.resize(line.size() + RecordParser::padding);
        const char* wrong = m_parser.parse({m_bytes.data(), line.size()}, m_record);
        if (wrong != nullptr) {
            return wrong;
        }
        const Totals& totals = m_record.totals;
        return fmt::format(
            "{} {} {} +{} kind {} classes {} failed {} episodes {} sum {} longest {} "
            "percentiles {} period {} limits {} {}",
            m_record.host, m_record.boot, m_record.sequence,
            m_record.forwardedAtMs - m_record.timeStampMs, static_cast<int>(m_record.kind),
            fmt::join(totals.classes, " "), totals.failed, totals.episodes, totals.episodeSumMs,
            totals.longestEpisodeMs, fmt::join(totals.percentilesUs, " "), m_record.periodMs,
            m_record.limits.thresholdUs, fmt::join(m_record.limits.boundsUs, " "));
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
    EXPECT_EQ(
        read(aRecord),
        "a b 7 +1500 kind 0 classes 1 2 3 4 5 failed 8 episodes 12 sum 13 longest 6 percentiles 95 "
        "96 97 98 99 period 1000 limits 50000 1000 2000 3000 4000");
}

TEST_F(Reading, TakesNothingFromTheRecordBefore) {
    read(aRecord);
    std::string line = with(R"("failedIos":8,"periodMs":1000,"episodeSumMs":13)", "");
    const std::size_t rest = line.find(",\"cm6\"");
    line.erase(rest, line.find("},\"u64Entries\"") - rest);
    EXPECT_EQ(read(line),
              "a b 7 +1500 kind 0 classes 1 2 3 4 5 failed 0 episodes 0 sum 0 longest 0 "
              "percentiles 0 0 0 0 0 period 0 limits 50000 0 0 0 0");
    line.erase(line.find(",\"cm5\":5"), 8);
    EXPECT_NE(read(line).find(" kind 4 "), std::string::npos) << "not all classes: another event";
}

TEST_F(Reading, SaysWhyALineIsNoRecord) {
    const std::vector<std::pair<std::string, std::string>> rows = {
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
        EXPECT_EQ(read(line), reason) << line;
    }
}

TEST_F(Reading, OrdersProcessesAndLimitsByTimeWhateverTheOrder) {
    std::vector<u32> made = {1, 2, 3}; // when, in ms, with a threshold of the same number
    do {
        read(aRecord);
        Choice choice;
        choice.stepMs = 1000;
        Fleet fleet(choice);
        for (const u32 ms : made) {
            m_record.boot = ms == 1 ? "z" : "a";
            m_record.sequence = ms;
            m_record.forwardedAtMs = m_record.timeStampMs = ms;
            m_record.limits.thresholdUs = ms;
            fleet.add(m_record);
        }
        const Host& host = fleet.hosts().begin()->second;
        ASSERT_EQ(host.bootsInOrder().size(), 2U);
        EXPECT_EQ(host.bootsInOrder().front()->name, "z");
        const Cell& cell = host.cells.cells().front();
        EXPECT_EQ(cell.first.thresholdUs, 1U);
        EXPECT_EQ(cell.last.thresholdUs, 3U);
    } while (std::next_permutation(made.begin(), made.end()));
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
    EXPECT_EQ(splitInPieces(longest + "\n", 1U << 16U).front().size(), longest.size() + 2);
}

TEST(Sequences, NamesGapsWhateverTheOrder) {
    std::vector<u64> numbers = {3, 4, 6, 9, 10, 20};
    do {
        Sequences seen;
        for (const u64 number : numbers) {
            ASSERT_TRUE(seen.add(number, static_cast<s64>(number)));
            ASSERT_FALSE(seen.add(number, 0));
        }
        Ranges evicted;
        evicted.add(15, 18);
        evicted.add(14, 19);
        evicted.add(12, 15);
        std::string text;
        for (const Gap& gap : seen.gaps(evicted)) {
            text += fmt::format("{} from {} to {}{}, ", gap.count, gap.afterMs, gap.beforeMs,
                                gap.isFirst ? " first" : "");
        }
        ASSERT_EQ(text, "2 from 0 to 3 first, 1 from 4 to 6, 2 from 6 to 9, 1 from 10 to 20, ")
            << "11 alone: the rest was evicted";
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
