#include "common/infra/Log.h"
#include "host/services/SpdlogSink.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
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

// Both convertible to a text and streamable.
struct Labelled {
    operator std::string_view() const { return "the text"; }
    friend std::ostream& operator<<(std::ostream& out, const Labelled& /*piece*/) {
        return out << "label";
    }
};

TEST_F(LogTest, ATypesOwnOperatorIsUsedAlsoIfItConvertsToText) {
    check(Labelled{}, std::string_view(), nullptr);
}

TEST_F(LogTest, ANullTextIsNamed) {
    for (const bool asStream : {false, true}) {
        LogItem item(LogModuleKel, InfoLevel, "f", 3);
        asStream ? item << std::dec : item;
        item << static_cast<const char*>(nullptr) << static_cast<char*>(nullptr) << std::flush;
    }
    EXPECT_EQ(log.texts(InfoLevel), (std::vector<std::string>{"(null)(null)", "(null)(null)"}));
}

struct Unprintable {
    bool isThrown;
    friend std::ostream& operator<<(std::ostream& out, const Unprintable& piece) {
        return piece.isThrown ? throw 42 : (out << static_cast<std::streambuf*>(nullptr));
    }
};

TEST_F(LogTest, ALineWithAPieceThatCannotBeWrittenIsDropped) {
    for (const bool isThrown : {false, true}) {
        const u64 dropped = LogService::droppedCount();
        log.clear();
        LogItem item(LogModuleKel, InfoLevel, "f", 3);
        item << "cut " << Unprintable{isThrown} << " cut" << std::endl << "whole" << std::endl;
        EXPECT_EQ(log.texts(InfoLevel), std::vector<std::string>{"whole\n"});
        EXPECT_EQ(LogService::droppedCount(), dropped + 1);
    }
}

TEST_F(LogTest, WithoutMemoryALineIsWrittenWholeOrDropped) {
    const std::string longText(2'000, 'x');
    const u64 dropped = LogService::droppedCount();
    int failures = 0;
    for (; log.lines().empty(); ++failures) {
        LogItem item(LogModuleKel, InfoLevel, "f", 3);
        allocationsLeft = failures;
        item << 1.5 << longText << longText << std::endl;
        allocationsLeft = unlimitedAllocations;
    }
    EXPECT_GT(failures, 2);
    EXPECT_EQ(log.texts(InfoLevel), std::vector<std::string>{"1.5" + longText + longText + "\n"});
    EXPECT_EQ(LogService::droppedCount() - dropped, failures - 1U);
}

TEST_F(LogTest, ALineThatTheSinkRefusesIsDropped) {
    struct : ILogSink {
        void write(const LogRecord& /*record*/) override { throw 42; }
    } refusing;
    ILogSink* const previous = LogService::setSink(&refusing);
    const u64 dropped = LogService::droppedCount();
    const u64 assertions = LogService::assertionCount();
    LogItem(LogModuleKel, AssertLevel, "f", 3) << "lost" << std::endl;
    LogService::setSink(previous);
    EXPECT_EQ(LogService::droppedCount(), dropped + 1);
    EXPECT_EQ(LogService::assertionCount(), assertions + 1);
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

TEST(SpdlogSinkTest, TellsTheFirstOfTheLinesThatTheFileDoesNotTake) {
    const auto sink = SpdlogSink::toFile("/dev/full");
    testing::internal::CaptureStderr();
    for (int line = 0; line < 2; ++line) {
        EXPECT_THROW(sink->write({LogModuleKel, WarnLevel, "f", 3, "x"}), std::runtime_error);
    }
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(told.find("cannot write the log: "), 0U) << told;
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
}

} // namespace
