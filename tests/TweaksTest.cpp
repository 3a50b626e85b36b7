#include "common/infra/Tweaks.h"

#include "common/infra/DynamicTweaks.h"
#include "common/infra/StringUtils.h"
#include "host/services/TweaksFile.h"
#include "tests/support/Installed.h"
#include "tests/support/RecordingLog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

template <typename T>
using Default = DefaultTweakValue<T>;

template <typename T>
Default<T> invalidDefault(T value) {
    Default<T> result(value);
    result.m_valid = false;
    return result;
}

TEST(TweaksTest, LooksUpByNameAndTypeElseAnswersTheDefault) {
    RecordingLog log;
    Tweaks tweaks;
    // Each answers whether a lookup of "t_Name" gave what the row expects.
    const auto asString = [&](const std::string& expected) {
        return [&, expected] { return tweaks.stringVal("t_Name", {}) == expected; };
    };
    const auto asLong = [&](s64 expected) {
        return [&, expected] { return tweaks.longVal("T_NAME", Default<s64>(-7)) == expected; };
    };
    const auto asInt = [&](int expected) {
        return [&, expected] { return tweaks.intVal("t_name", Default<int>(-7)) == expected; };
    };
    const auto asUint = [&](u32 expected) {
        return [&, expected] { return tweaks.uintVal("t_Name", Default<u32>(7)) == expected; };
    };
    const auto asBool = [&](bool expected) {
        return [&, expected] { return tweaks.boolVal("t_Name", Default<bool>(true)) == expected; };
    };
    const struct {
        std::string text;
        std::function<bool()> holds;
        const char* complaint; // none: the text fits
    } rows[] = {
        {"", asString(""), nullptr},
        {" any text ", asString(" any text "), nullptr},
        {"-9223372036854775808", asLong(std::numeric_limits<s64>::min()), nullptr},
        {"9223372036854775808", asLong(-7), "a whole number of 64 bits"},
        {"-2147483648", asInt(std::numeric_limits<int>::min()), nullptr},
        {"2147483648", asInt(-7), "a whole number of 32 bits"},
        {"4294967295", asUint(4294967295), nullptr},
        {"4294967296", asUint(7), "a whole number from 0 to 4294967295"},
        {"-1", asUint(7), "a whole number from 0 to 4294967295"},
        {"12 ", asUint(7), "a whole number from 0 to 4294967295"},
        {" 12", asUint(7), "a whole number from 0 to 4294967295"},
        {"0x12", asUint(7), "a whole number from 0 to 4294967295"},
        {"", asUint(7), "a whole number from 0 to 4294967295"},
        {"false", asBool(false), nullptr},
        {"true", asBool(true), nullptr},
        {"0", asBool(true), "true or false"},
    };
    EXPECT_TRUE(asUint(7)()) << "not set";
    for (const auto& row : rows) {
        log.clear();
        tweaks.set("t_Name", row.text);
        EXPECT_TRUE(row.holds()) << "\"" << row.text << "\"";
        Texts expected;
        if (row.complaint != nullptr) {
            expected.push_back("text=\"" + row.text + "\" expected " + row.complaint + "\n");
        }
        Texts errors = log.texts(ErrorLevel);
        for (std::string& error : errors) {
            EXPECT_TRUE(StringUtils::contains(error, "tunable=t_name")) << error;
            error = error.substr(error.find("text="));
        }
        EXPECT_EQ(errors, expected);
    }
}

TEST(TweaksTest, AnswersNothingWithoutADefault) {
    Tweaks tweaks;
    EXPECT_EQ(tweaks.stringVal("t_None", invalidDefault<std::string>("x")), "");
    EXPECT_EQ(tweaks.longVal("t_None", invalidDefault<s64>(1)), 0);
    EXPECT_EQ(tweaks.intVal("t_None", invalidDefault<int>(1)), 0);
    EXPECT_EQ(tweaks.uintVal("t_None", invalidDefault<u32>(1)), 0u);
    EXPECT_FALSE(tweaks.boolVal("t_None", invalidDefault<bool>(true)));
}

TEST(TweaksTest, NamesAreOrderedWithoutRegardToAsciiCase) {
    const CaseInsensitiveLess less;
    const Texts ascending = {"", "a", "A1", "a_", "aB", "B", "\xC3\x84", "\xC3\xA4"};
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            EXPECT_EQ(less(ascending[i], ascending[j]), i < j) << ascending[i] << ascending[j];
        }
    }
    EXPECT_FALSE(less("t_Name", "T_nAME") || less("T_nAME", "t_Name"));
}

TEST(StringUtilsTest, SplitsAtEachSeparatorAndKeepsEmptyPieces) {
    EXPECT_EQ(StringUtils::splitStr("", ','), Texts{""});
    EXPECT_EQ(StringUtils::splitStr("sun", ','), Texts{"sun"});
    EXPECT_EQ(StringUtils::splitStr(",sun,, mon ,", ','), (Texts{"", "sun", "", " mon ", ""}));
}

TEST(StringUtilsTest, ContainsIgnoresAsciiCase) {
    EXPECT_TRUE(StringUtils::contains("sunday", "sun"));
    EXPECT_TRUE(StringUtils::contains("on MONDAY", "mon"));
    EXPECT_TRUE(StringUtils::contains("ssun", "SUN"));
    EXPECT_TRUE(StringUtils::contains("", ""));
    EXPECT_FALSE(StringUtils::contains("su", "sun"));
    EXPECT_FALSE(StringUtils::contains("s@n", "s`n"));
    EXPECT_FALSE(StringUtils::contains("\xC3\x84", "\xC3\xA4"));
}

// A tunables file in a folder of its own, on fresh services.
class TweaksFileTest : public testing::Test {
protected:
    RecordingLog log;
    Tweaks tweaks;
    DynamicTweaks live;
    Installed<Tweaks, Tweaks> installedTweaks{tweaks};
    Installed<DynamicTweaks, DynamicTweaks> installedLive{live};
    std::filesystem::path folder;
    std::string path;
    std::optional<TweaksFile> file;

    void SetUp() override {
        std::string name = testing::TempDir() + "tweaks-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
        path = folder / "tweaks.toml";
    }
    void TearDown() override {
        file.reset();
        std::filesystem::remove_all(folder);
    }

    void write(const std::string& content) { std::ofstream(path) << content; }
    void replace(const std::string& content) {
        const std::filesystem::path fresh = folder / "fresh";
        std::ofstream(fresh) << content;
        std::filesystem::rename(fresh, path);
    }
    void load(const std::string& content, const Texts& pinned = {}) {
        write(content);
        file.emplace(path, pinned);
        file->load();
    }
    u32 interval() { return tweaks.uintVal("t_StorageAnalyticsIntervalSec", Default<u32>(86400)); }
};

TEST_F(TweaksFileTest, AppliesWhatTheFileNamesAndLogsTheChanges) {
    load("T_STORAGEANALYTICSINTERVALSEC = 4_294_967\n"
         "t_disablePeriodicAnalytics = true\n"
         "t_StorageAnalyticsLatencyThreshold = 4294967295\n"
         "t_StorageAnalyticsLatencyFast = 0\n"
         "t_StorageAnalyticsLatencySlow = 20000 # as before\n"
         "t_StorageAnalyticsLatencyVerySlow = 20001\n");
    EXPECT_EQ(interval(), 4294967u);
    EXPECT_TRUE(live.t_disablePeriodicAnalytics);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyThreshold, 4294967295u);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyFast, 0u);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyModerate, 5000u);
    EXPECT_EQ(live.t_StorageAnalyticsLatencySlow, 20000u);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyVerySlow, 20001u);
    EXPECT_EQ(log.texts(InfoLevel), Texts{" " + path +
                                          ": t_StorageAnalyticsIntervalSec 86400 -> 4294967, "
                                          "t_disablePeriodicAnalytics false -> true, "
                                          "t_StorageAnalyticsLatencyThreshold 50000 -> 4294967295, "
                                          "t_StorageAnalyticsLatencyFast 1000 -> 0, "
                                          "t_StorageAnalyticsLatencyVerySlow 100000 -> 20001\n"});
}

TEST_F(TweaksFileTest, WhatVanishedGoesBackToTheDefault) {
    live.t_StorageAnalyticsLatencyThreshold = 42; // not the declared one
    load("t_StorageAnalyticsIntervalSec = 5\nt_StorageAnalyticsLatencyThreshold = 7\n"
         "t_disablePeriodicAnalytics = true\n");
    write("");
    file->load();
    EXPECT_EQ(interval(), 86400u);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyThreshold, 42u);
    EXPECT_FALSE(live.t_disablePeriodicAnalytics);
}

TEST_F(TweaksFileTest, LeavesPinnedTunablesAlone) {
    tweaks.set("t_StorageAnalyticsIntervalSec", "2");
    load("t_StorageAnalyticsIntervalSec = 5\nt_StorageAnalyticsLatencyFast = 9999\n"
         "t_StorageAnalyticsLatencyModerate = 4000\n",
         {"T_storageAnalyticsIntervalSec", "t_StorageAnalyticsLatencyFast"});
    tweaks.set("t_StorageAnalyticsIntervalSec", "3");
    file->load();
    EXPECT_EQ(interval(), 3u);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyFast, 1000u);
    EXPECT_EQ(live.t_StorageAnalyticsLatencyModerate, 4000u);
    EXPECT_THROW(load("t_StorageAnalyticsIntervalSec = 0\n", {"t_StorageAnalyticsIntervalSec"}),
                 TweaksFileError);
}

TEST_F(TweaksFileTest, RefusesABadFileAsAWhole) {
    const std::string good = "t_disablePeriodicAnalytics = true\n"; // line 1
    const std::string fast = "t_StorageAnalyticsLatencyFast";
    const std::string moderate = "t_StorageAnalyticsLatencyModerate";
    const std::string u32Expected = ", expected a whole number from 0 to 4294967295";
    const std::string intervalExpected = ", expected a whole number from 1 to 4294967";
    const struct {
        std::string line2;
        std::string complaint;
    } rows[] = {
        {"t_Unknown = 1", "t_Unknown: is not a tunable, expected one of "
                          "t_StorageAnalyticsIntervalSec, t_disablePeriodicAnalytics, "
                          "t_StorageAnalyticsLatencyThreshold, t_StorageAnalyticsLatencyFast, "
                          "t_StorageAnalyticsLatencyModerate, t_StorageAnalyticsLatencySlow, "
                          "t_StorageAnalyticsLatencyVerySlow"},
        {"T_DISABLEPERIODICANALYTICS = true",
         "t_disablePeriodicAnalytics: is in the file twice, expected once"},
        {"t_StorageAnalyticsIntervalSec = 0",
         "t_StorageAnalyticsIntervalSec: is 0" + intervalExpected},
        {"t_StorageAnalyticsIntervalSec = 4294968",
         "t_StorageAnalyticsIntervalSec: is 4294968" + intervalExpected},
        {"t_StorageAnalyticsIntervalSec = 1.5",
         "t_StorageAnalyticsIntervalSec: is of type floating-point" + intervalExpected},
        {fast + " = -1", fast + ": is -1" + u32Expected},
        {fast + " = 4294967296", fast + ": is 4294967296" + u32Expected},
        {fast + " = \"1000\"", fast + ": is the text \"1000\"" + u32Expected},
        {fast + " = true", fast + ": is of type boolean" + u32Expected},
        {fast + " = 5000", fast + ": is 5000, expected less than " + moderate + ", which is 5000"},
        {moderate + " = 999",
         moderate + ": is 999, expected more than " + fast + ", which is 1000"},
        {"[" + fast + "]", fast + ": is of type table" + u32Expected},
        {"t_StorageAnalyticsIntervalSec", "not TOML: "},
    };
    for (const auto& row : rows) {
        try {
            load(good + row.line2 + "\n");
            ADD_FAILURE() << "accepted: " << row.line2;
        } catch (const TweaksFileError& error) {
            const std::string expected = path + ":2: " + row.complaint;
            const std::string told = error.what();
            EXPECT_EQ(row.complaint.back() == ' ' ? told.substr(0, expected.size()) : told,
                      expected);
        }
        EXPECT_FALSE(live.t_disablePeriodicAnalytics) << row.line2;
    }
    EXPECT_THROW(load("t_disablePeriodicAnalytics = 1"), TweaksFileError);
    EXPECT_THROW(TweaksFile(folder).load(), TweaksFileError);
    EXPECT_THROW(TweaksFile(folder / "none" / "x.toml").follow(), TweaksFileError);
}

TEST_F(TweaksFileTest, FollowsTheFile) {
    const auto threshold = [](const std::string& value) {
        return "t_StorageAnalyticsLatencyThreshold = " + value + "\n";
    };
    load(threshold("1"));
    write(threshold("2")); // between load() and follow()
    file->follow();
    EXPECT_TRUE(log.waitFor("Threshold 1 -> 2"));
    write(threshold("3"));
    EXPECT_TRUE(log.waitFor("Threshold 2 -> 3"));
    replace(threshold("4"));
    EXPECT_TRUE(log.waitFor("Threshold 3 -> 4"));
    EXPECT_TRUE(log.texts(ErrorLevel).empty());

    replace(threshold("-5"));
    EXPECT_TRUE(log.waitFor(path + ":1: t_StorageAnalyticsLatencyThreshold: is -5, expected a "
                                   "whole number from 0 to 4294967295; the values in force stay"));
    EXPECT_EQ(live.t_StorageAnalyticsLatencyThreshold, 4u);
    write(threshold("4"));
    EXPECT_TRUE(log.waitFor(path + ": as before"));

    std::filesystem::remove(path);
    EXPECT_TRUE(log.waitFor(path + ": cannot be read (No such file or directory)"));
    EXPECT_EQ(live.t_StorageAnalyticsLatencyThreshold, 4u);
    write(threshold("6"));
    EXPECT_TRUE(log.waitFor("Threshold 4 -> 6"));

    std::filesystem::remove_all(folder);
    EXPECT_TRUE(log.waitFor("its folder is gone; changes are no longer followed"));
    EXPECT_EQ(live.t_StorageAnalyticsLatencyThreshold, 6u);
}

} // namespace
