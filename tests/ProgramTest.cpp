#include "host/program/ParcelFormat.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

namespace {

using nlohmann::json;

// The classes and their bounds in microseconds, slowest first.
const std::vector<std::pair<const char*, u64>> classes = {
    {"cm5", ~u64{0}}, {"cm4", 100'000}, {"cm3", 20'000}, {"cm2", 5'000}, {"cm1", 1'000}};

class ProgramTest : public testing::Test {
protected:
    // What a run left behind; of its JSON lines the storage reports, and what came last.
    struct Outcome {
        int exitCode;
        std::string output, errors;
        std::vector<json> reports;
        json last;

        u64 countedIos() const {
            u64 sum = 0;
            for (const json& report : reports) {
                for (const auto& each : classes) {
                    sum += report["u32Entries"][each.first].get<u64>();
                }
            }
            return sum;
        }
        // What the data path says that it made: "analytics-host: 1234 I/Os (...".
        u64 completedIos() const { return std::stoull(errors.substr(errors.find(' '))); }
    };

    void SetUp() override {
        std::filesystem::create_directory(folder);
        std::filesystem::create_directory(disk);
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    std::string read(const std::string& name) const {
        std::ifstream file(folder + "/" + name);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // `around` is a shell command in which "$run" is the program with its options.
    Outcome run(const std::string& options, const std::string& around = "$run >out") {
        const std::string program = std::string(ANALYTICS_HOST) + " " + options;
        const std::string script = "cd " + folder + " && exec 2>err && run='" + program + "' && ";
        const int status = std::system((script + around).c_str());
        Outcome outcome{WEXITSTATUS(status), read("out"), read("err"), {}, {}};
        std::istringstream lines(outcome.output);
        for (std::string line; std::getline(lines, line) && line.rfind('{', 0) == 0;) {
            outcome.last = json::parse(line);
            if (outcome.last["eventName"] == "StoragePeriodicParcel") {
                outcome.reports.push_back(outcome.last);
            }
        }
        return outcome;
    }

    const std::string folder = testing::TempDir() + "analytics." + std::to_string(getpid());
    const std::string disk = folder + "/disk";
    const std::string onDisk = "--path disk --size 1M --format jsonl --interval 1 ";
};

TEST_F(ProgramTest, EveryIoIsInOneReportAndTheMaximaComeLast) {
    const Outcome outcome = run(onDisk + "--reports 2 --rate 0 --queue-depth 5");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    ASSERT_EQ(outcome.reports.size(), 2U);
    EXPECT_GT(outcome.countedIos(), 0U);
    EXPECT_EQ(outcome.countedIos(), outcome.completedIos());
    EXPECT_EQ(outcome.reports[0]["text"], "[Latency Threshold=50000][eq=50000]");
    EXPECT_EQ(outcome.reports[1]["u64Entries"]["cd11"], 1);
    EXPECT_TRUE(std::filesystem::is_empty(disk));

    const auto slowest = std::find_if(classes.begin(), classes.end(), [&](const auto& each) {
        return std::any_of(outcome.reports.begin(), outcome.reports.end(), [&](const json& report) {
            return report["u32Entries"][each.first] != 0;
        });
    });
    const u64 longestIoUs = outcome.last["u64Entries"]["longestIoUs"];
    EXPECT_EQ(outcome.last["eventName"], "HostMaximaParcel");
    EXPECT_EQ(outcome.last["u64Entries"]["deepestQueue"], 5);
    EXPECT_LE(longestIoUs, slowest->second);
    EXPECT_GE(longestIoUs, slowest + 1 == classes.end() ? 1 : (slowest + 1)->second);
}

TEST_F(ProgramTest, AnInterruptionClosesAndReportsTheRunningPeriod) {
    for (const char* signal : {"INT", "TERM"}) {
        const std::string afterTheFirstReport = "mkfifo pipe$$ && { $run >pipe$$ & } && "
                                                "{ head -n 1; kill -" +
                                                std::string(signal) +
                                                " $!; cat; } <pipe$$ >out; wait $!";
        const Outcome outcome = run(onDisk + "--max-ios 100 --rate 1000", afterTheFirstReport);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
        EXPECT_GE(outcome.reports.size(), 2U);
        EXPECT_EQ(outcome.countedIos(), 100U);
        EXPECT_EQ(outcome.completedIos(), 100U);
        EXPECT_TRUE(std::filesystem::is_empty(disk));
    }
}

TEST_F(ProgramTest, ATextReportIsLaidOutAndPlain) {
    const Outcome outcome = run("--path disk --size 1M --interval 1 --reports 1");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    for (const char* part :
         {"StoragePeriodicParcel", "(cd11)", "cm1  fast", "cm5  slowest", "<= 1 ms", "> 100 ms",
          "(cm6)", "equals the live one", "longestIoUs"}) {
        EXPECT_NE(outcome.output.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(outcome.output.find('\x1b'), std::string::npos);
}

TEST_F(ProgramTest, TunablesKeepReportsBackAndOutputIsAppended) {
    const Outcome outcome =
        run(onDisk + "--reports 1 --tweaks off.toml --output out",
            "echo t_disablePeriodicAnalytics=true >off.toml && echo {} >out && $run");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_EQ(outcome.output.substr(0, 3), "{}\n");
    EXPECT_TRUE(outcome.reports.empty());
}

TEST_F(ProgramTest, AScheduleIsShownAsTheSchedulerWillKeepIt) {
    const std::string fields = "$run | cut -c 1-4,15-17 | sort >out";
    EXPECT_EQ(run("--days Wed,mon --hour 5 --show-schedule 4", fields).output,
              "Mon  05\nMon  05\nWed  05\nWed  05\n");
    EXPECT_EQ(
        run("--interval 604800 --show-schedule 3", "$run | cut -c 1-4,15-26 | uniq | wc -l >out")
            .output,
        "1\n");
}

TEST_F(ProgramTest, WhatCannotBeDoneIsSaidInOneLine) {
    struct Row {
        const char* options;
        int exitCode;
        const char* message;
    };
    std::ofstream(folder + "/bad.toml") << "\nt_StorageAnalyticsIntervalSec = \"soon\"\n";
    for (const Row& row :
         std::vector<Row>{{"--nonsense", 2, "--nonsense"},
                          {"--interval 0", 2, "not in range 1 to 4294967"},
                          {"--format xml", 2, "'xml' is not one of jsonl, text"},
                          {"--block-size 1000", 2, "multiple of 512"},
                          {"--size 4K --block-size 8K", 2, "at least one block"},
                          {"--days mon,xyz --hour 5", 2, "'xyz' is no day; expected"},
                          {"--days , --hour 5", 2, "the list is empty"},
                          {"--days mon --hour 24", 2, "24 not in range 0 to 23"},
                          {"--days mon --hour 5 --interval 5", 2, "--interval excludes --days"},
                          {"--path /proc/none", 1, "in '/proc/none': No such file"},
                          {"--size 4000000G", 1, "expected room for"},
                          {"--tweaks bad.toml", 1, "bad.toml:2: t_StorageAnalyticsIntervalSec"},
                          {"--log /proc/none/log", 1, "/proc/none/log"},
                          {"--output /proc/none/out", 1, "cannot open '/proc/none/out'"}}) {
        const Outcome outcome = run(row.options);
        EXPECT_EQ(outcome.exitCode, row.exitCode) << row.options;
        EXPECT_NE(outcome.errors.find(row.message), std::string::npos) << outcome.errors;
        EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1);
        EXPECT_EQ(outcome.output, "");
    }
    const Outcome full = run(onDisk + "--output /dev/full");
    EXPECT_EQ(full.exitCode, 3);
    EXPECT_NE(full.errors.find("cannot write to '/dev/full': No space"), std::string::npos);
}

TEST(ParcelFormatTest, JsonHoldsWhatTheGettersGive) {
    AnalyticsParcel parcel;
    parcel.setEventName("\"quoted\" \xff");
    parcel.setCategory("category");
    parcel.setAccount(AnalyticsParcel::QEM);
    parcel.setEventPriority(AnalyticsParcel::Critical);
    parcel.setValue(~u32{0});
    parcel.setText("text");
    parcel.setDetails("line\nline");
    parcel.setKelTimeStamp(1'700'000'000'123);
    parcel.addEntry("s", std::string("text")).addEntry("u32", u32{1}).addEntry("u64", ~u64{0});
    parcel.addEntry("s64", s64{-1}).addEntry("d", 0.5).addEntry("i", -2);
    EXPECT_EQ(toJsonLine(parcel),
              R"({"eventName":"\"quoted\" )"
              "\xef\xbf\xbd"
              R"(","category":"category",)"
              R"("account":"QEM","priority":"Critical","value":4294967295,"text":"text",)"
              R"("details":"line\nline","timeStampMs":1700000000123,)"
              R"("timeStamp":"2023-11-14T22:13:20.123Z","stringEntries":{"s":"text"},)"
              R"("u32Entries":{"u32":1},"u64Entries":{"u64":18446744073709551615},)"
              R"("longEntries":{"s64":-1},"doubleEntries":{"d":"0.500000"},"intEntries":{"i":-2}})"
              "\n");
}

} // namespace
