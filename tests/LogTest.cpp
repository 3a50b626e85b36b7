#include "common/infra/Log.h"
#include "host/services/SpdlogSink.h"
#include "host/testing/RecordingLog.h"

#include <gtest/gtest.h>

#include <filesystem>
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
    // The item writes what a standard stream makes of the same pieces.
    template <typename... Pieces>
    void check(const Pieces&... pieces) {
        std::ostringstream expected;
        expected.imbue(std::locale::classic());
        (expected << ... << pieces);
        log.clear();
        LogItem item(LogModuleKel, InfoLevel, "f", 3);
        (item << ... << pieces) << std::flush;
        EXPECT_EQ(log.texts(InfoLevel), std::vector<std::string>{expected.str()});
    }

    RecordingLog log;
};

TEST_F(LogTest, PiecesReadAsOnAnyStandardStream) {
    const std::locale previous = std::locale::global(std::locale(std::locale(), new Grouping));
    const std::string text = "text";
    const void* const none = nullptr;
    check(text, std::string_view("view"), "literal", 'c', '\n', true, 1'234.5, 1e20F);
    check(0, -1, 1'234'567, 1'234'567U, std::numeric_limits<std::int64_t>::min(),
          ~std::uint64_t{0});
    check(static_cast<unsigned char>('u'), static_cast<short>(-5), none, &text);
    check(LogModuleCommon, std::hex, 255, &text, std::dec, 255, std::setw(6), 7);
    for (const std::size_t length : {511U, 512U, 513U, 5'000U}) {
        check(std::string(length / 2, 'x'), std::string(length - length / 2, 'y'));
        check(std::string(length / 2, 'x'), 1.5, std::string(length - length / 2, 'y'));
    }
    std::locale::global(previous);
}

TEST_F(LogTest, TextArrivesAtEachFlushAndOnlyThere) {
    {
        LogItem item(LogModuleCommon, WarnLevel, "void f()", 3);
        item << "first" << std::endl << "second";
        EXPECT_EQ(log.lines().size(), 1U);
        static_cast<std::ostream&>(item) << " " << 2 << std::endl;
        item << "never flushed";
    }
    EXPECT_EQ(log.texts(WarnLevel), (std::vector<std::string>{"first\n", "second 2\n"}));
    EXPECT_EQ(log.lines()[0].module, LogModuleCommon);
    EXPECT_EQ(log.lines()[0].function, "void f()");
    EXPECT_EQ(log.lines()[0].detail, 3);
}

TEST_F(LogTest, OnlyEnabledLevelsAreWrittenButAssertionsAlways) {
    const u64 assertions = LogService::assertionCount();
    for (int level = AssertLevel; level < LevelsCount; ++level) {
        LogService::setLevel(WarnLevel);
        LogItem(LogModuleKel, static_cast<LogLevel>(level), "f", 3) << "x" << 1.5 << std::endl;
        LogService::setLevel(InfoLevel);
    }
    LogItem(LogModuleKel, LongTermInfoLevel, "f", 3) << std::endl; // enabled again
    std::vector<LogLevel> levels;
    for (const RecordingLog::Line& line : log.lines()) {
        levels.push_back(line.level);
    }
    EXPECT_EQ(levels, (std::vector<LogLevel>{AssertLevel, FatalLevel, ErrorLevel, WarnLevel,
                                             LongTermInfoLevel}));
    EXPECT_EQ(LogService::assertionCount(), assertions + 1);
    EXPECT_DEATH(LogService::setSink(nullptr); LogService::setAbortOnAssert(true);
                 LogItem(LogModuleKel, AssertLevel, "f", 3) << "x failed. " << std::endl;
                 , "kel \\[f\\] x failed");
}

TEST(SpdlogSinkTest, WritesAFileThatCanBeReadWhileItIsWritten) {
    const std::string path = testing::TempDir() + "analytics-log-test.txt";
    std::filesystem::remove(path);
    const auto sink = SpdlogSink::toFile(path);
    sink->write({LogModuleKel, WarnLevel, "void f()", 3, "two spaces  kept {} \n\n"});
    std::ifstream file(path);
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    EXPECT_NE(line.find("kel [void f()] two spaces  kept {} "), std::string::npos) << line;
    std::filesystem::remove(path);
}

} // namespace
