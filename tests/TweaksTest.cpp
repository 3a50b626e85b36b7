#include "common/infra/Tweaks.h"

#include "common/infra/DynamicTweaks.h"
#include "host/services/TweaksFile.h"
#include "host/testing/Installed.h"
#include "host/testing/RecordingLog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace {

using Texts = std::vector<std::string>;

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
    RecordingLog log;
    Tweaks tweaks;
    DynamicTweaks live;
    Installed<Tweaks, Tweaks> installedTweaks{tweaks};
    Installed<DynamicTweaks, DynamicTweaks> installedLive{live};
    const std::filesystem::path folder = testing::TempDir() + "tweaks." + std::to_string(getpid());
    const std::string path = folder / "tweaks.toml";
    std::optional<TweaksFile> file;

    void SetUp() override { std::filesystem::create_directory(folder); }
    void TearDown() override {
        file.reset();
        std::filesystem::remove_all(folder);
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
            return "accepted: " + content;
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
        back += ", " + row[0] + " " + row[2] + " -> " + row[1];
    }
    load(content, {"T_storageAnalyticsLatencyFast"});
    EXPECT_TRUE(live.t_disablePeriodicAnalytics);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyVerySlow, 20002U);
    write("");
    file->load();
    EXPECT_EQ(log.texts(InfoLevel), (Texts{" " + path + ":" + there.substr(1) + "\n",
                                           " " + path + ":" + back.substr(1) + "\n"}));
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
    const std::string flag = "t_disablePeriodicAnalytics";
    EXPECT_EQ(refusal(flag + "=1"), path + ":1: " + flag + ": is 1, expected true or false");
    EXPECT_EQ(refusal(flag + "=true\nT_DISABLEPERIODICANALYTICS=true"),
              path + ":2: " + flag + ": is in the file twice, expected once");
    EXPECT_EQ(refusal("\n" + flag).rfind(path + ":2: not TOML: ", 0), 0U);
    EXPECT_THROW(TweaksFile(folder).load(), TweaksFileError);
    EXPECT_THROW(TweaksFile(folder / "none" / "x.toml").follow(), TweaksFileError);
}

TEST_F(TweaksFileTest, FollowsTheFile) {
    const std::string threshold = "t_StorageAnalyticsLatencyThreshold = ";
    const std::string fresh = folder / "fresh";
    load(threshold + "1\n");
    write(threshold + "2\n"); // between load() and follow()
    file->follow();
    EXPECT_TRUE(log.waitFor("Threshold 1 -> 2"));
    std::ofstream(fresh) << threshold << "-3\n";
    std::filesystem::rename(fresh, path);
    EXPECT_TRUE(log.waitFor(":1: t_StorageAnalyticsLatencyThreshold: is -3, expected a whole "
                            "number from 0 to 4294967295; the values in force stay"));
    write(threshold + "2\n");
    EXPECT_TRUE(log.waitFor(path + ": as before"));
    std::filesystem::remove(path);
    EXPECT_TRUE(log.waitFor(path + ": cannot be read (No such file or directory)"));
    EXPECT_EQ(live.t_StorageAnalyticsLatencyThreshold, 2U);
    write(threshold + "4\n");
    EXPECT_TRUE(log.waitFor("Threshold 2 -> 4"));
    std::filesystem::remove_all(folder);
    EXPECT_TRUE(log.waitFor("its folder is gone; changes are no longer followed"));
}

} // namespace
