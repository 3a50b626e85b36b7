#include "common/infra/Log.h"
#include "host/services/SpdlogSink.h"
#include "host/testing/LogText.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Files.h"

namespace {

using Texts = std::vector<std::string>;

// Grouped digits, as many a process's locale has them.
struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
};

// Both convertible to a text and streamable.
struct Labelled {
    operator std::string_view() const { return "the text"; }
    friend std::ostream& operator<<(std::ostream& out, const Labelled& /*piece*/) {
        return out << "label";
    }
};

struct Unprintable {
    bool isThrown;
    static inline int attempts = 0;
    friend std::ostream& operator<<(std::ostream& out, const Unprintable& piece) {
        ++attempts;
        return piece.isThrown ? throw 42 : (out << static_cast<std::streambuf*>(nullptr));
    }
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
        EXPECT_EQ(log.texts(InfoLevel), Texts{expected.str()});
    }

    RecordingLog log;
    const u64 droppedBefore = LogService::droppedCount();
    const u64 assertionsBefore = LogService::assertionCount();
    const int attemptsBefore = Unprintable::attempts;
};

TEST_F(LogTest, PiecesReadAsOnAnyStandardStream) {
    const std::locale previous = std::locale::global(std::locale(std::locale(), new Grouping));
    const std::string text = "text";
    const void* const none = nullptr;
    check(text, std::string_view("view"), "literal", 'c', '\n', true, 1'234.5, 1e20F);
    check(0, -1, 1'234'567, 1'234'567U, std::numeric_limits<std::int64_t>::min(), ~u64{0});
    check(static_cast<unsigned char>('u'), static_cast<short>(-5), none, &text);
    check(LogModuleCommon, std::hex, 255, &text, std::dec, 255, std::setw(6), 7, std::setw(9),
          text);
    check(Labelled{}, std::string_view(), nullptr);
    for (const std::size_t length : {511U, 512U, 513U, 5'000U}) {
        check(std::string(length / 2, 'x'), std::string(length - length / 2, 'y'));
        check(std::string(length / 2, 'x'), 1.5, std::string(length - length / 2, 'y'));
    }
    std::locale::global(previous);
    struct {
        LogItem item{LogModuleKel, InfoLevel, "f", 3};
        char behind = '.';
    } line;
    line.item << static_cast<const char*>(nullptr) << static_cast<char*>(nullptr) << std::endl;
    LogItem(LogModuleKel, InfoLevel, "f", 3) << "never flushed";
    EXPECT_EQ(log.texts(InfoLevel).back(), "(null)(null)\n");
    line.item << std::string(513, 'x');
    EXPECT_EQ(line.behind, '.');
}

TEST_F(LogTest, WhatCannotBeWrittenIsDroppedAndCounted) {
    for (const bool isThrown : {false, true}) {
        log.clear();
        LogItem item(LogModuleKel, AssertLevel, "f", 3);
        item << "cut " << Unprintable{isThrown} << " cut" << std::endl << "whole" << std::endl;
        EXPECT_EQ(log.texts(AssertLevel), Texts{"whole\n"});
    }
    struct : ILogSink {
        void write(const LogRecord& /*record*/) override { throw 42; }
    } refusing;
    EXPECT_EQ(LogService::setSink(&refusing), &log);
    LogItem(LogModuleKel, AssertLevel, "f", 3) << "lost" << std::endl;
    LogService::setSink(&log);
    EXPECT_EQ(LogService::droppedCount(), droppedBefore + 3);
    EXPECT_EQ(LogService::assertionCount(), assertionsBefore + 5);
}

TEST_F(LogTest, WithoutMemoryALineIsWrittenWholeOrDropped) {
    const std::string longText(2'000, 'x');
    LogItem item(LogModuleKel, InfoLevel, "f", 3);
    u64 failures = 0;
    for (log.clear(); log.lines().empty() && failures < 100; ++failures) {
        allocationsLeft = static_cast<int>(failures);
        item << "a" << longText << longText << std::endl;
        allocationsLeft = unlimitedAllocations;
    }
    EXPECT_EQ(log.texts(InfoLevel), Texts{"a" + longText + longText + "\n"});
    EXPECT_EQ(LogService::droppedCount() - droppedBefore, failures - 1);
}

TEST_F(LogTest, TheLevelAndWhatIsMoreSevereIsWritten) {
    EXPECT_TRUE(LogService::isEnabled(InfoLevel) && !LogService::isEnabled(DebugLevel));
    for (const LogLevel least : {AssertLevel, WarnLevel, InfoLevel}) {
        LogService::setLevel(least);
        for (int level = AssertLevel; level < LevelsCount; ++level) {
            LogItem item(LogModuleQem, static_cast<LogLevel>(level), "f", 3);
            static_cast<std::ostream&>(item) << std::endl;
        }
        LogItem(LogModuleQem, DebugLevel, "f", 3) << Unprintable{true} << std::endl;
    }
    EXPECT_EQ(std::regex_replace(toText(log), std::regex("qem (.*) \\[f\\] 3: \n"), "$1 "),
              "assert assert fatal error warn assert fatal error warn info long-term-info ");
    EXPECT_EQ(LogService::assertionCount(), assertionsBefore + 3);
    EXPECT_EQ(Unprintable::attempts, attemptsBefore) << "a line below the level is formatted";
}

TEST_F(LogTest, AnAssertionCanEndTheProcess) {
    EXPECT_DEATH(LogService::setSink(nullptr); LogService::setAbortOnAssert(true);
                 LogItem(LogModuleKel, AssertLevel, "f", 3) << "x failed. " << std::endl;
                 , "error *[0-9]+ kel \\[f\\] x failed");
}

TEST(SpdlogSinkTest, ALineCanBeReadOnceItIsWrittenAndThreeOlderFilesOf10MiBStay) {
    const TempFolder folder;
    std::filesystem::current_path(folder / "");
    const auto sink = SpdlogSink::toFile("log");
    for (int level = AssertLevel; level < LevelsCount; ++level) {
        const auto module = static_cast<LogModule>(level % LogModulesCount);
        sink->write({module, static_cast<LogLevel>(level), "void f()", 3, "two  {}\n\n"});
    }
    const std::regex stamp(R"(\d{4}(-\d\d){2}T\d\d(:\d\d){2}\.\d{3}[+-]\d\d:\d\d (\w+) +\d+)");
    EXPECT_EQ("\n" + std::regex_replace(folder.read("log"), stamp, "$3"),
              R"(
error invalid [void f()] two  {}
critical kel [void f()] two  {}
error qem [void f()] two  {}
warning common [void f()] two  {}
info invalid [void f()] two  {}
debug kel [void f()] two  {}
trace qem [void f()] two  {}
info common [void f()] two  {}
)");
    for (int line = 0; line < 46; ++line) { // 9 of them fit into a file
        sink->write({LogModuleKel, InfoLevel, "f", 3, std::string(1U << 20U, 'x')});
    }
    EXPECT_EQ(entriesOf(folder / ""), 4);
    EXPECT_EQ(std::filesystem::file_size("log.3") >> 20U, 9U);
    std::filesystem::current_path("/");
}

TEST(SpdlogSinkTest, AFileThatCannotBeWrittenIsToldOnceWithTheReason) {
    const TempFolder folder;
    const std::string expected = "expected an existing folder '" + (folder / "none") + "'";
    EXPECT_TRUE(holds(messageOf([&] { SpdlogSink::toFile(folder / "none/log"); }), expected));
    EXPECT_TRUE(holds(messageOf([&] { SpdlogSink::toFile(folder / "."); }), "cannot log to '"));
    EXPECT_EQ(entriesOf(folder / ""), 0);
    const auto sink = SpdlogSink::toFile("/dev/full");
    testing::internal::CaptureStderr();
    const auto write = [&] { sink->write({LogModuleKel, WarnLevel, "f", 3, "x"}); };
    const std::string reason = messageOf(write);
    EXPECT_EQ(messageOf(write), reason);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "cannot write the log: " + reason + "\n");
}

} // namespace
