#include "host/program/ParcelFormat.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <utility>

namespace {

using nlohmann::json;
using Arguments = std::vector<std::string>;

class ProgramTest : public testing::Test {
protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "analytics-program.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
    }

    void TearDown() override { std::filesystem::remove_all(folder); }

    std::unique_ptr<ChildProcess> start(Arguments arguments) {
        arguments.insert(arguments.begin(), {"--path", folder, "--size", "1M"});
        return std::make_unique<ChildProcess>(ANALYTICS_HOST, arguments);
    }

    std::string file(const std::string& name, const std::string& content) {
        std::ofstream(folder + "/" + name) << content;
        return folder + "/" + name;
    }

    bool folderIsEmpty() const { return std::filesystem::is_empty(folder); }

    std::string folder;
};

// What a run puts out as JSON lines: the storage reports, then the maxima.
struct Outcome {
    std::vector<json> reports;
    json maxima;

    // The I/Os in all reports, over all classes.
    u64 countedIos() const {
        u64 sum = 0;
        for (const json& report : reports) {
            for (const char* key : {"cm1", "cm2", "cm3", "cm4", "cm5"}) {
                sum += report["u32Entries"][key].get<u64>();
            }
        }
        return sum;
    }
};

Outcome outcomeOf(const std::string& output) {
    Outcome outcome;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        json parcel = json::parse(line);
        if (parcel["eventName"] == "StoragePeriodicParcel") {
            outcome.reports.push_back(std::move(parcel));
        } else {
            outcome.maxima = std::move(parcel);
        }
    }
    return outcome;
}

// The upper bound, in microseconds, of the slowest class that is not empty in any report.
u64 slowestBound(const Outcome& outcome) {
    const std::vector<std::pair<const char*, u64>> classes = {
        {"cm5", ~u64{0}}, {"cm4", 100'000}, {"cm3", 20'000}, {"cm2", 5'000}, {"cm1", 1'000}};
    for (const auto& [key, bound] : classes) {
        for (const json& report : outcome.reports) {
            if (report["u32Entries"][key] != 0) {
                return bound;
            }
        }
    }
    return 0;
}

// "analytics-host: 1234 I/Os (...": what the data path says that it made.
u64 completedIos(const std::string& errors) {
    const std::string prefix = "analytics-host: ";
    const auto start = errors.rfind(prefix, errors.find(" I/Os"));
    return start == std::string::npos ? ~u64{0} : std::stoull(errors.substr(start + prefix.size()));
}

TEST_F(ProgramTest, EveryIoIsInExactlyOneReport) {
    const auto program = start({"--interval", "1", "--reports", "2", "--rate", "0", "--queue-depth",
                                "5", "--format", "jsonl"});
    EXPECT_EQ(program->wait(), 0) << program->errors();
    const Outcome outcome = outcomeOf(program->output());
    ASSERT_EQ(outcome.reports.size(), 2U);
    EXPECT_GT(outcome.countedIos(), 0U);
    EXPECT_EQ(outcome.countedIos(), completedIos(program->errors()));
    const json& first = outcome.reports[0];
    EXPECT_EQ(first["text"], "[Latency Threshold=50000][eq=50000]");
    EXPECT_EQ(first["u64Entries"]["cd11"], 1);
    EXPECT_GE(outcome.reports[1]["timeStampMs"].get<u64>(),
              first["timeStampMs"].get<u64>() + 1'000);
    EXPECT_TRUE(folderIsEmpty());
}

TEST_F(ProgramTest, TheLastOutputCarriesTheMaximaOfTheRun) {
    const auto program = start({"--interval", "1", "--reports", "1", "--rate", "0", "--queue-depth",
                                "5", "--format", "jsonl"});
    EXPECT_EQ(program->wait(), 0) << program->errors();
    const Outcome outcome = outcomeOf(program->output());
    const u64 longestIoUs = outcome.maxima["u64Entries"]["longestIoUs"];
    const u64 bound = slowestBound(outcome);
    EXPECT_EQ(outcome.maxima["eventName"], "HostMaximaParcel");
    EXPECT_EQ(outcome.maxima["category"], "storage");
    EXPECT_EQ(outcome.maxima["u64Entries"]["deepestQueue"], 5);
    EXPECT_GT(longestIoUs, 0U);
    EXPECT_LE(longestIoUs, bound);
}

TEST_F(ProgramTest, AnInterruptionClosesAndReportsTheRunningPeriod) {
    for (const int signal : {SIGINT, SIGTERM}) {
        const auto program =
            start({"--interval", "1", "--max-ios", "100", "--rate", "1000", "--format", "jsonl"});
        program->readLine();
        program->signal(signal);
        EXPECT_EQ(program->wait(), 0) << program->errors();
        EXPECT_EQ(outcomeOf(program->output()).countedIos(), 100U);
        EXPECT_EQ(completedIos(program->errors()), 100U);
        EXPECT_TRUE(folderIsEmpty());
    }
}

TEST_F(ProgramTest, AScheduleIsShownAsTheSchedulerWillKeepIt) {
    const auto weekly = start({"--days", "Wed,mon", "--hour", "5", "--show-schedule", "4"});
    std::multiset<std::string> days;
    for (int i = 0; i < 4; ++i) {
        const std::string line = weekly->readLine();
        days.insert(line.substr(0, 4));
        EXPECT_EQ(line.substr(14, 4), " 05:") << line;
    }
    EXPECT_EQ(days, (std::multiset<std::string>{"Mon ", "Mon ", "Wed ", "Wed "}));
    EXPECT_EQ(weekly->wait(), 0) << weekly->errors();

    const auto frequent = start({"--interval", "86400", "--show-schedule", "2"});
    const std::string first = frequent->readLine();
    const std::string second = frequent->readLine();
    EXPECT_EQ(first.substr(14, 13), second.substr(14, 13));
    EXPECT_NE(first.substr(0, 3), second.substr(0, 3));
    EXPECT_EQ(frequent->wait(), 0) << frequent->errors();
}

TEST_F(ProgramTest, ATextReportIsLaidOutAndPlain) {
    const auto program = start({"--interval", "1", "--reports", "1"});
    EXPECT_EQ(program->wait(), 0) << program->errors();
    for (const char* part : {"StoragePeriodicParcel", "(cd11)", "cm1  fast", "cm5  slowest",
                             "<= 1 ms", "> 100 ms", "(cm6)", "equals the live one"}) {
        EXPECT_NE(program->output().find(part), std::string::npos) << part;
    }
    EXPECT_EQ(program->output().find('\x1b'), std::string::npos);
}

TEST_F(ProgramTest, ATunableMayKeepReportsBack) {
    const std::string tweaks = file("off.toml", "t_disablePeriodicAnalytics = true\n");
    const auto program =
        start({"--interval", "1", "--reports", "1", "--format", "jsonl", "--tweaks", tweaks});
    EXPECT_EQ(program->wait(), 0) << program->errors();
    EXPECT_TRUE(outcomeOf(program->output()).reports.empty());
}

TEST_F(ProgramTest, OutputIsAppended) {
    const std::string output = file("reports", "before\n");
    const auto program =
        start({"--interval", "1", "--reports", "1", "--format", "jsonl", "--output", output});
    EXPECT_EQ(program->wait(), 0) << program->errors();
    std::ifstream written(output);
    std::string line;
    std::getline(written, line);
    EXPECT_EQ(line, "before");
    std::getline(written, line);
    EXPECT_TRUE(json::accept(line)) << line;
}

TEST_F(ProgramTest, WhatCannotBeDoneIsSaidInOneLine) {
    struct Row {
        Arguments arguments;
        int exitCode;
        const char* message;
    };
    const std::string badTweaks = file("bad.toml", "t_StorageAnalyticsIntervalSec = \"soon\"\n");
    for (const Row& row : std::vector<Row>{
             {{"--nonsense"}, 2, "--nonsense"},
             {{"--interval", "0"}, 2, "--interval"},
             {{"--interval", "4294968"}, 2, "4294967"},
             {{"--format", "xml"}, 2, "'xml' is not one of jsonl, text"},
             {{"--block-size", "1000"}, 2, "multiple of 512"},
             {{"--size", "4K", "--block-size", "8K"}, 2, "at least one block"},
             {{"--rate", "many"}, 2, "--rate"},
             {{"--days", "mon,xyz", "--hour", "5"}, 2, "'xyz' is no day; expected"},
             {{"--days", ",", "--hour", "5"}, 2, "the list is empty"},
             {{"--days", "mon", "--hour", "24"}, 2, "24 not in range 0 to 23"},
             {{"--days", "mon"}, 2, "--hour"},
             {{"--days", "mon", "--hour", "5", "--interval", "5"}, 2, "--interval excludes --days"},
             {{"--path", "/proc/no/such/folder"}, 1, "in '/proc/no/such/folder': No such file"},
             {{"--size", "4000000G"}, 1, "expected room for"},
             {{"--tweaks", badTweaks}, 1, "bad.toml:1: t_StorageAnalyticsIntervalSec"},
             {{"--tweaks", "/proc/no/such/file"}, 1, "/proc/no/such/file"},
             {{"--log", "/proc/no/such/folder/log"}, 1, "/proc/no/such/folder/log"},
             {{"--output", "/proc/no/such/folder/out"},
              1,
              "cannot open '/proc/no/such/folder/out'"}}) {
        ChildProcess program(ANALYTICS_HOST, row.arguments);
        EXPECT_EQ(program.wait(), row.exitCode) << row.message;
        const std::string errors = program.errors();
        EXPECT_NE(errors.find(row.message), std::string::npos) << row.message << " in " << errors;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        EXPECT_EQ(program.output(), "") << row.message;
    }
}

TEST_F(ProgramTest, AReportThatCannotBeWrittenIsMissed) {
    const auto program = start({"--interval", "1", "--output", "/dev/full"});
    EXPECT_EQ(program->wait(), 3);
    EXPECT_NE(program->errors().find("cannot write to '/dev/full': No space left"),
              std::string::npos)
        << program->errors();
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
    const json expected = {{"eventName", "\"quoted\" \xef\xbf\xbd"},
                           {"category", "category"},
                           {"account", "QEM"},
                           {"priority", "Critical"},
                           {"value", ~u32{0}},
                           {"text", "text"},
                           {"details", "line\nline"},
                           {"timeStampMs", 1'700'000'000'123},
                           {"timeStamp", "2023-11-14T22:13:20.123Z"},
                           {"stringEntries", {{"s", "text"}}},
                           {"u32Entries", {{"u32", 1}}},
                           {"u64Entries", {{"u64", ~u64{0}}}},
                           {"longEntries", {{"s64", -1}}},
                           {"doubleEntries", {{"d", "0.500000"}}},
                           {"intEntries", {{"i", -2}}}};
    const std::string line = toJsonLine(parcel);
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_EQ(json::parse(line), expected);
}

} // namespace
