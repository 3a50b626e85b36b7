#include "common/infra/Tweaks.h"

#include "common/infra/DynamicTweaks.h"
#include "host/services/TweaksFile.h"
#include "host/testing/Installed.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <optional>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

const std::string interval = "t_StorageAnalyticsIntervalSec";
const std::string flag = "t_disablePeriodicAnalytics";
const std::string threshold = "t_StorageAnalyticsLatencyThreshold";

TEST(TweaksTest, LooksUpByNameAndTypeElseAnswersTheDefault) {
    RecordingLog log;
    Tweaks tweaks;
    const auto answers = [&] { // as each type
        std::ostringstream all;
        all << tweaks.longVal("t_Name", DefaultTweakValue<s64>(-7)) << " "
            << tweaks.intVal("t_name", DefaultTweakValue<int>(-8)) << " "
            << tweaks.uintVal("T_NAME", DefaultTweakValue<u32>(9)) << " "
            << tweaks.boolVal("t_Name", DefaultTweakValue<bool>(true)) << " "
            << tweaks.stringVal("t_Name", DefaultTweakValue<std::string>("none"));
        return all.str();
    };
    EXPECT_EQ(answers(), "-7 -8 9 1 none");
    DefaultTweakValue<u32> invalid(9);
    invalid.m_valid = false;
    EXPECT_EQ(tweaks.uintVal("t_Name", invalid), 0U);
    // A text, and the answers to it as all types but a text.
    for (const std::string row :
         {"-9223372036854775808 -9223372036854775808 -8 9 1", "9223372036854775808 -7 -8 9 1",
          "4294967295 4294967295 -8 4294967295 1", "-1 -1 -1 9 1", "0x12 -7 -8 9 1",
          "false -7 -8 9 0", " -7 -8 9 1"}) {
        const std::string text = row.substr(0, row.find(' '));
        tweaks.set("t_Name", text);
        EXPECT_EQ(text + " " + answers(), row + " " + text);
    }
    log.clear();
    tweaks.set("t_Name", "12\n");
    EXPECT_EQ(answers(), "-7 -8 9 1 12\n");
    const Texts errors = log.texts(ErrorLevel);
    ASSERT_EQ(errors.size(), 4U);
    EXPECT_EQ(errors[2],
              " tunable=T_NAME text=\"12\\x0a\" expected a whole number from 0 to 4294967295\n");
}

// A tunables file in a folder of its own, on fresh services.
class TweaksFileTest : public testing::Test {
protected:
    // Can make memory fail once on a thread that logs: `allocations` after its next line.
    struct Log : RecordingLog {
        void write(const LogRecord& record) override {
            RecordingLog::write(record);
            allocationsLeft = allocations.exchange(unlimitedAllocations);
        }
        std::atomic<int> allocations{unlimitedAllocations};
    } log;
    Tweaks tweaks;
    DynamicTweaks live;
    Installed<Tweaks, Tweaks> installedTweaks{tweaks};
    Installed<DynamicTweaks, DynamicTweaks> installedLive{live};
    const fs::path folder = testing::TempDir() + "tweaks." + std::to_string(getpid());
    const std::string path = folder / "tweaks.toml";
    std::optional<TweaksFile> file;

    void SetUp() override { fs::create_directory(folder); }
    void TearDown() override {
        file.reset();
        fs::remove_all(folder);
    }
    void write(const std::string& content) { std::ofstream(path) << content; }
    void load(const std::string& content, const Texts& pinned = {}) {
        write(content);
        file.emplace(path, pinned);
        file->load();
    }
    std::string refusal(const std::string& content) {
        try {
            load(content);
            return "accepted";
        } catch (const TweaksFileError& error) {
            return error.what();
        }
    }
};

TEST_F(TweaksFileTest, AppliesWhatIsNotPinnedThereAndBackAndLogsTheChanges) {
    const Texts rows[] = {{"t_StorageAnalyticsIntervalSec", "86400", "4294967"},
                          {"t_disablePeriodicAnalytics", "false", "true"},
                          {"t_StorageAnalyticsLatencyVerySlow", "100000", "20002"}};
    std::string content = "t_StorageAnalyticsLatencyFast = 9999\n", there, back;
    for (const Texts& row : rows) {
        content += "T" + row[0].substr(1) + " = " + row[2] + "\n";
        there += ", " + row[0] + " " + row[1] + " -> " + row[2];
        back += ", " + row[0] + " " + row[2] + " -> " + row[1] + " (not in the file: the default)";
    }
    load(content, {"T_storageAnalyticsLatencyFast"});
    EXPECT_TRUE(live.t_disablePeriodicAnalytics);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyVerySlow, 20002U);
    write("");
    file->load();
    EXPECT_EQ(log.texts(InfoLevel), Texts{" " + path + ":" + there.substr(1) + "\n"});
    EXPECT_EQ(log.texts(WarnLevel), Texts{" " + path + ":" + back.substr(1) + "\n"});
}

TEST_F(TweaksFileTest, RefusesABadFileAsAWhole) {
    const std::string prefix = "t_StorageAnalytics";
    // Below a good line, a line that is bad, but for a prefix; and what is said of it.
    const char* const rows[][2] = {
        {"Unknown=1", "is not a tunable, expected one of t_StorageAnalyticsIntervalSec, t_dis"},
        {"IntervalSec=0", "is 0, expected a whole number from 1 to 4294967"},
        {"IntervalSec=4294968", "is 4294968, expected a whole number from 1 to 4294967"},
        {"IntervalSec=1.5", "is of type floating-point, expected a whole number from 1 to 4"},
        {"LatencyFast=4294967296", "is 4294967296, expected a whole number from 0 to 4294967295"},
        {"LatencyFast=\"1000\"", "is the text \"1000\", expected a whole number from 0 to 4"},
        {"LatencySlow=5000", "is 5000, expected more than t_StorageAnalyticsLatencyModerate"}};
    for (const auto& [bad, problem] : rows) {
        const std::string line = prefix + bad;
        const std::string complaint = path + ":2: " + line.substr(0, line.find('=')) + ": ";
        EXPECT_EQ(refusal("t_disablePeriodicAnalytics=true\n" + line).find(complaint + problem), 0U)
            << refusal(line);
        EXPECT_FALSE(live.t_disablePeriodicAnalytics) << line;
    }
    EXPECT_EQ(refusal(flag + "=1"), path + ":1: " + flag + ": is 1, expected true or false");
    EXPECT_EQ(refusal(flag + "=true\nT_DISABLEPERIODICANALYTICS=true"),
              path + ":2: " + flag + ": is in the file twice, expected once");
    EXPECT_EQ(refusal("\n" + flag).rfind(path + ":2: not TOML: ", 0), 0U);
}

TEST_F(TweaksFileTest, RefusesWhatIsNoSmallFileOfShortLines) {
    const auto times = [](int count, const std::string& part) {
        std::string all;
        for (int i = 0; i < count; ++i) {
            all += part;
        }
        return all;
    };
    const std::string line = times(1024, "#"), full = times(64, line.substr(1) + "\n");
    const std::string longLine = ":1: is too long, expected at most 1024 bytes";
    const std::string longFile = ": is too long, expected at most 65536 bytes";
    // The content, and what is said of it behind the path.
    const std::string rows[][2] = {
        {line, ""},
        {line + "#", longLine},
        {full, ""},
        {full + "\n", longFile},
        {times(30'000, "a.") + "b=1", longLine},
        {"[" + times(100'000, "a") + "]", longFile},
        {times(60, "x=[{" + times(500, "a.") + "b=[\n"), ":1: not TOML: "},
        {R"("a\nb\u001b\u007f"=1)", R"(:1: a\x0ab\x1b\x7f: is not a tunable)"},
        {interval + R"(="\r\n")", ":1: " + interval + R"(: is the text "\x0d\x0a", expected)"}};
    for (const auto& [content, problem] : rows) {
        const std::string expected = problem.empty() ? "accepted" : path + problem;
        EXPECT_EQ(refusal(content).substr(0, expected.size()), expected) << content.substr(0, 40);
    }
    fs::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    for (const std::string& other : {path, folder.native()}) {
        EXPECT_THROW(TweaksFile(other).load(), TweaksFileError) << other;
    }
}

TEST_F(TweaksFileTest, FollowsTheFile) {
    const std::string fresh = folder / "fresh";
    load(threshold + "=1\n");
    write(threshold + "=2\n"); // between load() and follow()
    file->follow();
    EXPECT_TRUE(log.waitFor("Threshold 1 -> 2"));
    std::ofstream(fresh) << threshold << "=-3\n";
    fs::rename(fresh, path);
    EXPECT_TRUE(log.waitFor(":1: t_StorageAnalyticsLatencyThreshold: is -3, expected a whole "
                            "number from 0 to 4294967295; the values in force stay"));
    write(threshold + "=2\n");
    EXPECT_TRUE(log.waitFor(path + ": as before"));
    fs::remove(path);
    EXPECT_TRUE(log.waitFor(path + ": cannot be read (No such file or directory)"));
    EXPECT_EQ(live.t_StorageAnalyticsLatencyThreshold, 2U);
    write(threshold + "=4\n" + interval + "=60\n");
    EXPECT_TRUE(log.waitFor("Sec 86400 -> 60 (at the next start), " + threshold + " 2 -> 4"));
    EXPECT_EQ(log.texts(WarnLevel).size(), 2U); // the first two after a refusal
}

// Each row changes what the path leads to in another way.
TEST_F(TweaksFileTest, FollowsTheWayToTheFile) {
    const fs::path link = folder / "current", name = fs::path(path).filename(), held = link / name;
    std::ofstream open;
    const auto make = [&](const fs::path& made, const std::string& content) {
        fs::create_directories(made);
        std::ofstream(made / name) << content;
    };
    const auto swap = [&](const fs::path& target, const fs::path& swapped) {
        fs::create_symlink(target, folder / "swap");
        fs::rename(folder / "swap", swapped);
    };
    const auto lose = [&](const fs::path& lost) {
        fs::remove_all(lost);
        EXPECT_TRUE(log.waitFor("cannot be read (No such file or directory)"));
    };
    const std::pair<const char*, std::function<void(const std::string&)>> rows[] = {
        {"the target is written", [&](auto& content) { make(folder / "a" / "..1", content); }},
        {"a folder's link in a link's way is swapped, as a ConfigMap is",
         [&](auto& content) {
             make(folder / "a" / "..2", content);
             swap("..2", folder / "a" / "..data");
         }},
        {"a link in the path is swapped",
         [&](auto& content) {
             make(folder / "b", content);
             swap(folder / "b", link);
         }},
        {"the file comes back as a link",
         [&](auto& content) {
             lose(held);
             make(folder / "c", content);
             fs::create_symlink(folder / "c" / name, held);
         }},
        {"the file comes back as a hard link",
         [&](auto& content) {
             lose(held);
             make(folder / "d", content);
             fs::create_hard_link(folder / "d" / name, held);
         }},
        {"permissions change",
         [&](auto& content) {
             open.open(held);
             open << content << std::flush;
             fs::permissions(held, fs::perms::owner_all);
         }},
        {"a FIFO was in its place",
         [&](auto& content) {
             fs::remove(held);
             EXPECT_EQ(mkfifo(held.c_str(), 0600), 0);
             EXPECT_TRUE(log.waitFor(": is not a regular file, expected a file of tunables"));
             fs::remove(held);
             make(folder / "b", content);
         }},
        {"its folder comes back", [&](auto& content) {
             lose(folder / "b");
             make(folder / "b", content);
         }}};
    make(folder / "a" / "..1", threshold + "=1");
    fs::create_symlink("..1", folder / "a" / "..data");
    fs::create_symlink("..data" / name, folder / "a" / name);
    fs::create_symlink("a", link);
    file.emplace(held);
    file->load();
    file->follow();
    u32 value = 1;
    for (const auto& [how, change] : rows) {
        log.clear();
        const std::string next = std::to_string(++value);
        change(threshold + "=" + next);
        EXPECT_TRUE(log.waitFor("-> " + next)) << how;
    }
}

TEST_F(TweaksFileTest, IsAppliedAsAWholeOrNotAtAllWhenMemoryFails) {
    load(interval + "=7\n" + flag + "=true");
    int allocations = -1;
    for (bool isDone = false; !isDone;) {
        tweaks.set(interval, "86400");
        live.t_disablePeriodicAnalytics = false;
        allocationsLeft = ++allocations;
        try {
            file->load();
            isDone = true;
        } catch (const std::bad_alloc&) {
        }
        allocationsLeft = unlimitedAllocations;
        EXPECT_EQ(tweaks.stringVal(interval, {}) == "7", live.t_disablePeriodicAnalytics)
            << allocations;
    }
    EXPECT_TRUE(live.t_disablePeriodicAnalytics);
    EXPECT_GT(allocations, 10);
}

TEST_F(TweaksFileTest, IsFollowedOnWhenMemoryFailed) {
    load(threshold + "=1");
    write(threshold + "=2");
    log.allocations = 0;
    file->follow();
    EXPECT_TRUE(log.waitFor("1 -> 2"));
    write(threshold + "=3");
    EXPECT_TRUE(log.waitFor(path + ": std::bad_alloc; tried again in a second"));
    EXPECT_TRUE(log.waitFor("2 -> 3"));
}

} // namespace
