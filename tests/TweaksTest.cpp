#include "common/infra/Tweaks.h"

#include "common/infra/StringUtils.h"
#include "host/services/TweaksFile.h"
#include "host/testing/FakeServices.h"
#include "host/testing/LogText.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Files.h"
#include "tests/support/RefuseCall.h"
#include "tests/support/Together.h"

#include <fmt/format.h>

namespace {

using Texts = std::vector<std::string>;

const std::string interval = "t_StorageAnalyticsIntervalSec";
const std::string flag = "t_disablePeriodicAnalytics";
const std::string threshold = "t_StorageAnalyticsLatencyThreshold";

TEST(StringUtilsTest, SplitsAtEachSeparatorAndFindsWhateverTheLetterCase) {
    EXPECT_EQ(StringUtils::splitStr(",a,, b", ','), (Texts{"", "a", "", " b"}));
    EXPECT_EQ(StringUtils::splitStr("", ','), Texts{""});
    EXPECT_TRUE(StringUtils::contains("xAZz[", "aZZ["));
    EXPECT_TRUE(StringUtils::contains("", ""));
    EXPECT_FALSE(StringUtils::contains("Z[", "z{"));
}

TEST(TweaksTest, LooksUpByNameAndType) {
    RecordingLog log;
    Tweaks tweaks;
    std::ostringstream told;
    const auto tellAnswers = [&] { // as each type
        told << "\n'" << tweaks.stringVal("t_Name", DefaultTweakValue<std::string>("none")) << "' "
             << tweaks.longVal("t_Name", DefaultTweakValue<s64>(-7)) << " "
             << tweaks.intVal("t_name", DefaultTweakValue<int>(-8)) << " "
             << tweaks.uintVal("T_NAME", DefaultTweakValue<u32>(9)) << " "
             << tweaks.boolVal("t_Name", DefaultTweakValue<bool>(true));
    };
    tellAnswers();
    for (const char* text : {"-9223372036854775808", "9223372036854775808", "4294967295", "-1",
                             "0x12", "false", "true", ""}) {
        tweaks.set("t_Name", text);
        tellAnswers();
    }
    EXPECT_EQ(told.str(), R"(
'none' -7 -8 9 1
'-9223372036854775808' -9223372036854775808 -8 9 1
'9223372036854775808' -7 -8 9 1
'4294967295' 4294967295 -8 4294967295 1
'-1' -1 -1 9 1
'0x12' -7 -8 9 1
'false' -7 -8 9 0
'true' -7 -8 9 1
'' -7 -8 9 1)");
    for (const char* const part :
         {"true or false", "a whole number of 32 bits", "a whole number of 64 bits"}) {
        EXPECT_TRUE(holds(toText(log), std::string(" expected ") + part + "\n"));
    }
    log.clear();
    tweaks.set("t_Name", "12 \n\x7f");
    DefaultTweakValue<u32> invalid(9);
    invalid.m_valid = false;
    EXPECT_EQ(tweaks.uintVal("T_NAME", invalid), 0U);
    EXPECT_EQ(toBriefText(log), "common error lookUp \" tunable=T_NAME text=\"12 \\x0a\\x7f\" "
                                "expected a whole number from 0 to 4294967295\\n\"\n");
}

// A tunables file in a folder of its own, on fresh services.
class TweaksFileTest : public testing::Test {
protected:
    // Can make memory fail once on a thread that logs: `allocations` after its next line.
    struct Log : RecordingLog {
        void write(const LogRecord& record) override {
            const int left = allocations.exchange(unlimitedAllocations);
            RecordingLog::write(record); // it wakes the test, which may set the next one
            allocationsLeft = left;
        }
        std::atomic<int> allocations{unlimitedAllocations};
    } log;
    FakeServices services;
    DynamicTweaks& live = services.dynamicTweaks;
    const TempFolder folder;
    const std::string path = folder / "tweaks.toml";
    std::optional<TweaksFile> file;
    const std::ptrdiff_t descriptors = entriesOf("/proc/self/fd");

    void TearDown() override {
        file.reset();
        EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    }
    void write(const std::string& content) { folder.write("tweaks.toml", content); }
    void load(const std::string& content) {
        write(content);
        file.emplace(path);
        file->load();
    }
};

TEST_F(TweaksFileTest, LogsEachChangeAndLeavesAPinnedValue) {
    load(R"(
T_StorageAnalyticsIntervalSec = 4294967
t_DISABLEPeriodicAnalytics = true
t_StorageAnalyticsLatencyThreshold = 0
t_StorageAnalyticsLatencyFast = 1
t_StorageAnalyticsLatencyModerate = 2
t_StorageAnalyticsLatencySlow = 3
t_StorageAnalyticsLatencyVerySlow = 4294967295
)");
    file->load(); // changes nothing
    write("");
    file->load();
    EXPECT_EQ("\n" + std::regex_replace(toBriefText(log), std::regex(path), "PATH"), R"(
common info load " PATH: t_StorageAnalyticsIntervalSec 86400 -> 4294967, t_disablePeriodicAnalytics false -> true, t_StorageAnalyticsLatencyThreshold 50000 -> 0, t_StorageAnalyticsLatencyFast 1000 -> 1, t_StorageAnalyticsLatencyModerate 5000 -> 2, t_StorageAnalyticsLatencySlow 20000 -> 3, t_StorageAnalyticsLatencyVerySlow 100000 -> 4294967295\n"
common warn load " PATH: t_StorageAnalyticsIntervalSec 4294967 -> 86400 (not in the file: the default), t_disablePeriodicAnalytics true -> false (not in the file: the default), t_StorageAnalyticsLatencyThreshold 0 -> 50000 (not in the file: the default), t_StorageAnalyticsLatencyFast 1 -> 1000 (not in the file: the default), t_StorageAnalyticsLatencyModerate 2 -> 5000 (not in the file: the default), t_StorageAnalyticsLatencySlow 3 -> 20000 (not in the file: the default), t_StorageAnalyticsLatencyVerySlow 4294967295 -> 100000 (not in the file: the default)\n"
)");
    file.emplace(path, Texts{"T_storageAnalyticsLatencyFast"}); // pinned
    live.t_StorageAnalyticsLatencyFast = 9;
    write("t_StorageAnalyticsLatencyFast=10");
    file->load();
    EXPECT_EQ(live.t_StorageAnalyticsLatencyFast, 9U);
}

TEST_F(TweaksFileTest, RefusesABadFileAsAWhole) {
    const auto times = [](int count, const std::string& part) {
        return fmt::format("{}", fmt::join(Texts(count, part), ""));
    };
    const std::string line = times(1024, "#"), full = times(64, line.substr(1) + "\n");
    const std::string below = flag + "=true\nt_StorageAnalytics"; // a good line
    std::string messages = "\n";
    for (const std::string& content :
         {below + "Unknown=1", below + "IntervalSec=0", below + "IntervalSec=4294968",
          below + "IntervalSec=1.5", below + "LatencyFast=4294967296",
          below + R"(LatencyFast="\n")", below + "LatencyFast=5000", below + "LatencySlow=5000",
          below + "LatencyVerySlow=9", below + "LatencyFast=9\nt_StorageAnalyticsLatencyModerate=9",
          flag + "=1", flag + "=true\nT_DISABLEPERIODICANALYTICS=true", "\n" + flag, line,
          line + "#", full, full + "\n", times(60, "x=[{" + times(500, "a.") + "b=[\n")}) {
        messages += messageOf([&] { load(content); }) + "\n";
        EXPECT_FALSE(live.t_disablePeriodicAnalytics) << content;
    }
    messages = std::regex_replace(messages, std::regex("not TOML: .*;"), "not TOML;");
    EXPECT_EQ(std::regex_replace(messages, std::regex(path + ":"), ""), R"(
2: t_StorageAnalyticsUnknown: is not a tunable, expected one of t_StorageAnalyticsIntervalSec, t_disablePeriodicAnalytics, t_StorageAnalyticsLatencyThreshold, t_StorageAnalyticsLatencyFast, t_StorageAnalyticsLatencyModerate, t_StorageAnalyticsLatencySlow, t_StorageAnalyticsLatencyVerySlow
2: t_StorageAnalyticsIntervalSec: is 0, expected a whole number from 1 to 4294967
2: t_StorageAnalyticsIntervalSec: is 4294968, expected a whole number from 1 to 4294967
2: t_StorageAnalyticsIntervalSec: is of type floating-point, expected a whole number from 1 to 4294967
2: t_StorageAnalyticsLatencyFast: is 4294967296, expected a whole number from 0 to 4294967295
2: t_StorageAnalyticsLatencyFast: is the text "\x0a", expected a whole number from 0 to 4294967295
2: t_StorageAnalyticsLatencyFast: is 5000, expected less than t_StorageAnalyticsLatencyModerate, which is 5000
2: t_StorageAnalyticsLatencySlow: is 5000, expected more than t_StorageAnalyticsLatencyModerate, which is 5000
2: t_StorageAnalyticsLatencyVerySlow: is 9, expected more than t_StorageAnalyticsLatencySlow, which is 20000
3: t_StorageAnalyticsLatencyModerate: is 9, expected more than t_StorageAnalyticsLatencyFast, which is 9
1: t_disablePeriodicAnalytics: is 1, expected true or false
2: t_disablePeriodicAnalytics: is in the file twice, expected once
2: not TOML; expected a name and its value in one line
no error
1: is too long, expected at most 1024 bytes
no error
 is too long, expected at most 65536 bytes
1: not TOML; expected a name and its value in one line
)");
}

// Each row changes what the path leads to in another way, as a shell does it, and tells what is
// logged then. The following begins after the first change. The first after a refusal is news.
TEST_F(TweaksFileTest, FollowsTheWayToTheFile) {
    const std::string missing = "cannot be read (No such file or directory)";
    const std::tuple<LogLevel, const char*, std::string> rows[] = {
        {InfoLevel, "put a/..1; ln -s ..1 a/..data; ln -s ..data/f a/f; ln -s a current", "-> 1"},
        {InfoLevel, "put a/..1", "-> 2"},
        {InfoLevel, "put a/..2; ln -s ..2 swap; mv -T swap a/..data", "-> 3"}, // as a ConfigMap
        {InfoLevel, "put b; ln -s b swap; mv -T swap current", "-> 4"},
        {ErrorLevel, "rm b/f", missing},
        {WarnLevel, "put c; ln -s ../c/f b/f", "-> 6"},
        {ErrorLevel, "mv b/f b/g", missing},
        {WarnLevel, "put d; ln d/f b/f", "-> 8"},
        {ErrorLevel, "rm b/f; mkfifo b/f", "is not a regular file, expected a file of tunables"},
        {WarnLevel, "rm b/f; put b", "-> 10"},
        {ErrorLevel, "ln -s f loop; mv -T loop b/f", "(Too many levels of symbolic links)"},
        {ErrorLevel, "rm -r b", missing},
        {WarnLevel, "put b", "-> 13"},
        {ErrorLevel, "put swap -; mv swap/f b/f",
         "/f:1: " + threshold +
             ": is -14, expected a whole number from 0 to 4294967295; the values in force stay"},
        {WarnLevel, "echo $T=13 > swap/f; mv swap/f b/f", "/f: as before"},
        {InfoLevel, "(echo $I=60; echo $F=true; echo $T=4) > swap/f; mv swap/f b/f",
         "Sec 86400 -> 60 (at the next start), " + flag + " false -> true, " + threshold +
             " 13 -> 4\n"}};
    int number = 0;
    for (const auto& [level, command, told] : rows) {
        log.clear();
        const std::string script =
            fmt::format("cd {}; T={}; I={}; F={}; put() {{ mkdir -p $1; echo $T=$2{} > $1/f; }}; ",
                        folder / "", threshold, interval, flag, ++number);
        ASSERT_EQ(std::system((script + command).c_str()), 0);
        if (!file) {
            file.emplace(folder / "current/f");
            file->load();
            file->follow();
        }
        EXPECT_TRUE(log.waitFor(told)) << command;
        EXPECT_FALSE(log.texts(level).empty()) << command;
    }
    log.clear();
    std::ofstream held(folder / "b/f"); // not closed yet
    held << threshold << "=0" << std::flush;
    std::filesystem::permissions(folder / "b/f", std::filesystem::perms::owner_all);
    EXPECT_TRUE(log.waitFor("-> 0"));
}

TEST_F(TweaksFileTest, IsNotFollowedWhereItsFolderCannotBeWatched) {
    load("");
    std::thread([this] {
        ASSERT_TRUE(refuseCall(SYS_inotify_add_watch, EACCES));
        EXPECT_EQ(messageOf([this] { file->follow(); }),
                  path + ": its folder cannot be watched (Permission denied)");
    }).join();
}

TEST_F(TweaksFileTest, IsAppliedAsAWholeAndFollowedOnWhenMemoryFails) {
    file.emplace(path);
    write(interval + "=7\n" + flag + "=true");
    const auto expectUnchanged = [&] {
        EXPECT_EQ(services.tweaks.uintVal(interval, DefaultTweakValue<u32>(1)), 1U);
        EXPECT_FALSE(live.t_disablePeriodicAnalytics);
    };
    LogService::setLevel(AssertLevel); // a log line without memory is dropped: no failure
    EXPECT_GT(failEachAllocation([&] { file->load(); }, expectUnchanged), 10);
    LogService::setLevel(InfoLevel);
    EXPECT_TRUE(live.t_disablePeriodicAnalytics);
    TweaksFile refused(folder.write("refused", "?")); // is not loaded again meanwhile
    refused.follow();
    EXPECT_TRUE(log.waitFor("; the values in force stay"));
    write(threshold + "=2");
    log.allocations = 0;
    file->follow();
    EXPECT_TRUE(log.waitFor("50000 -> 2"));
    write(threshold + "=3");
    EXPECT_TRUE(log.waitFor(path + ": std::bad_alloc; tried again in a second"));
    std::atomic<bool> over{false};
    const auto busy = startTogether(1, [&] { // must not put the next attempt off
        while (!over) {
            std::ofstream(folder / "other");
        }
    });
    EXPECT_TRUE(log.waitFor("2 -> 3")) << toText(log);
    EXPECT_EQ(log.texts(ErrorLevel).size(), 2U);
    over = true;
}

} // namespace
