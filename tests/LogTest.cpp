#include "common/infra/Log.h"
#include "host/services/SpdlogSink.h"
#include "tests/support/RecordingLog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iomanip>
#include <limits>
#include <locale>
#include <sstream>

namespace {

// Grouped digits and a decimal comma, as many a process's locale has them.
struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
    char do_decimal_point() const override { return ','; }
};

class LogTest : public testing::Test {
protected:
    template <typename... Pieces>
    std::string written(const Pieces&... pieces) {
        log.clear();
        LogItem item(LogModuleKel, InfoLevel, "f", 3);
        (item << ... << pieces) << std::flush;
        const auto lines = log.lines();
        return lines.size() == 1 ? lines[0].text : "lines: " + std::to_string(lines.size());
    }

    // What a standard stream makes of the same pieces.
    template <typename... Pieces>
    static std::string expected(const Pieces&... pieces) {
        std::ostringstream stream;
        stream.imbue(std::locale::classic());
        (stream << ... << pieces);
        return stream.str();
    }

    template <typename... Pieces>
    void check(const Pieces&... pieces) {
        EXPECT_EQ(written(pieces...), expected(pieces...));
    }

    RecordingLog log;
};

TEST_F(LogTest, APieceReadsAsOnAnyStandardStream) {
    const std::locale previous = std::locale::global(std::locale(std::locale(), new Grouping));
    const std::string text = "text";
    const char array[] = "array";
    const void* const none = nullptr;
    const int* const typed = reinterpret_cast<const int*>(0xdeadbeef);
    check(text, array, std::string_view("view"), "literal", 'c', '\n');
    check(0, -1, 1'234'567, 1'234'567U, true);
    check(std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::uint64_t>::max());
    check(static_cast<unsigned char>('u'), static_cast<short>(-5), 1'234.5, 1e20F);
    check(none, static_cast<const void*>(&text), typed);
    check(LogModuleCommon, std::hex, 255, &text, std::dec, 255, std::setw(6), 7);
    std::locale::global(previous);
}

TEST_F(LogTest, ALineOfAnyLengthArrivesWhole) {
    for (const std::size_t length : {511U, 512U, 513U, 5'000U}) {
        const std::string half(length / 2, 'x');
        const std::string rest(length - length / 2, 'y');
        EXPECT_EQ(written(half, rest), half + rest) << length;
        EXPECT_EQ(written(half, 1.5, rest), half + "1.5" + rest) << length;
    }
}

TEST_F(LogTest, TextArrivesAtEachFlushAndOnlyThere) {
    {
        LogItem item(LogModuleCommon, WarnLevel, "void f()", 3);
        item << "first" << std::endl << "second";
        EXPECT_EQ(log.lines().size(), 1U);
        static_cast<std::ostream&>(item) << " " << 2 << std::endl;
        item << "never flushed";
    }
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text, "first\n");
    EXPECT_EQ(lines[1].text, "second 2\n");
    EXPECT_EQ(lines[1].module, LogModuleCommon);
    EXPECT_EQ(lines[1].level, WarnLevel);
    EXPECT_EQ(lines[1].function, "void f()");
    EXPECT_EQ(lines[1].detail, 3);
}

TEST_F(LogTest, OnlyEnabledLevelsAreWrittenButAssertionsAlways) {
    struct Row {
        LogLevel level;
        std::size_t linesAtWarn, linesAtInfo;
    };
    for (const Row& row : std::vector<Row>{{AssertLevel, 1, 1},
                                           {ErrorLevel, 1, 1},
                                           {WarnLevel, 1, 1},
                                           {InfoLevel, 0, 1},
                                           {DebugLevel, 0, 0},
                                           {LongTermInfoLevel, 0, 1}}) {
        const auto linesAt = [&](LogLevel enabled) {
            LogService::setLevel(enabled);
            log.clear();
            LogItem(LogModuleKel, row.level, "f", 3) << "x" << 1.5 << std::endl;
            return log.lines().size();
        };
        EXPECT_EQ(linesAt(WarnLevel), row.linesAtWarn) << toString(row.level);
        EXPECT_EQ(linesAt(InfoLevel), row.linesAtInfo) << toString(row.level);
    }
}

TEST_F(LogTest, AssertionsAreCountedAndMayEndTheProcess) {
    const u64 before = LogService::assertionCount();
    LogItem(LogModuleKel, AssertLevel, "f", 3) << "x failed. " << std::endl;
    EXPECT_EQ(LogService::assertionCount(), before + 1);
    EXPECT_DEATH(
        {
            LogService::setSink(nullptr);
            LogService::setAbortOnAssert(true);
            LogItem(LogModuleKel, AssertLevel, "f", 3) << "x failed. " << std::endl;
        },
        "kel \\[f\\] x failed");
}

TEST(SpdlogSinkTest, WritesAFileThatCanBeReadWhileItIsWritten) {
    const std::string path = testing::TempDir() + "analytics-log-test.txt";
    std::remove(path.c_str());
    const auto sink = SpdlogSink::toFile(path);
    sink->write({LogModuleKel, WarnLevel, "void f()", 3, "two spaces  kept {} \n\n"});
    std::ifstream file(path);
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    EXPECT_NE(line.find("warning"), std::string::npos) << line;
    EXPECT_NE(line.find("kel [void f()] two spaces  kept {} "), std::string::npos) << line;
    EXPECT_FALSE(std::getline(file, line)) << line;
    std::remove(path.c_str());
    EXPECT_THROW(SpdlogSink::toFile("/proc/no/such/file"), std::runtime_error);
}

} // namespace
