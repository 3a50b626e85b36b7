#include "common/infra/Defs.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <tuple>
#include <utility>

namespace {

using nlohmann::json;

// The classes and their bounds in microseconds, slowest first.
const std::vector<std::pair<const char*, u64>> classes = {
    {"cm5", ~u64{0}}, {"cm4", 100'000}, {"cm3", 20'000}, {"cm2", 5'000}, {"cm1", 1'000}};

// What the programs have taken that have ended.
long processorMs() {
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    return (used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1'000 +
           (used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1'000;
}

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
                sum += report["u64Entries"]["failedIos"].get<u64>();
            }
            return sum;
        }
        // What the data path says that it made: "analytics-host: 1234 I/Os (...".
        u64 completedIos() const {
            const std::string name = "analytics-host: ";
            return std::stoull(errors.substr(errors.find(name) + name.size()));
        }
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
    EXPECT_EQ(outcome.countedIos(), outcome.completedIos());
    EXPECT_EQ(outcome.reports[0]["text"], "[Latency Threshold=50000][eq=50000]");
    EXPECT_EQ(outcome.reports[1]["u64Entries"]["cd11"], 1);
    EXPECT_NEAR(outcome.reports[1]["u64Entries"]["periodMs"].get<double>(), 1'000, 500);
    EXPECT_EQ(outcome.reports[1]["u32Entries"]["boundVerySlowUs"], 100'000);
    EXPECT_TRUE(std::filesystem::is_empty(disk));

    const u64 longestIoUs = outcome.last["u64Entries"]["longestIoUs"];
    for (std::size_t i = 0; i + 1 < classes.size(); ++i) {
        if (outcome.reports[0]["u32Entries"][classes[i].first] != 0) {
            EXPECT_GE(longestIoUs, classes[i + 1].second) << classes[i].first << " is not empty";
        }
    }
    EXPECT_GT(longestIoUs, 0U);
    EXPECT_EQ(outcome.last["eventName"], "HostMaximaParcel");
    EXPECT_EQ(outcome.last["u64Entries"]["deepestQueue"], 5);
}

TEST_F(ProgramTest, WhereIoUringIsRefusedThreadsServeAndOneLineSaysWhy) {
    for (const auto& [error, message, remedy] :
         {std::tuple(EPERM, "Operation not permitted", "kernel.io_uring_disabled=0"),
          {ENOSYS, "Function not implemented", "a kernel that has it"},
          {ENOMEM, "Cannot allocate memory", "ulimit -l"}}) {
        const auto refused = [code = error](const std::string& around) {
            return std::string(REFUSE) + " " + std::to_string(SYS_io_uring_setup) + " " +
                   std::to_string(code) + " " + around;
        };
        const Outcome outcome = run(onDisk + "--reports 1 --rate 0", refused("$run >out"));
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
        const std::size_t lineEnd = outcome.errors.find('\n');
        const std::string line = outcome.errors.substr(0, lineEnd);
        EXPECT_NE(line.find("threads make the I/Os: io_uring is refused"), std::string::npos);
        EXPECT_NE(line.find(message), std::string::npos) << line;
        EXPECT_NE(line.find(remedy), std::string::npos) << line;
        EXPECT_EQ(outcome.errors.find("whole run\n"), lineEnd + 1) << outcome.errors;
        EXPECT_NE(outcome.errors.find("  engine       threads\n"), std::string::npos);
        EXPECT_EQ(outcome.countedIos(), outcome.completedIos());

        // A file as large as this one would be refused, had it come to that.
        const Outcome strict =
            run("--path disk --io-engine io_uring --size 4000000G", refused("$run >out"));
        EXPECT_EQ(strict.exitCode, 1);
        EXPECT_NE(strict.errors.find(message), std::string::npos) << strict.errors;
        EXPECT_EQ(std::count(strict.errors.begin(), strict.errors.end(), '\n'), 1);
    }
}

TEST_F(ProgramTest, AKernelThatStaysShortOfResourcesIsNotAskedWithoutPause) {
    const std::string shortage =
        " " + std::to_string(SYS_io_uring_enter) + " " + std::to_string(EAGAIN) + " ";
    const long before = processorMs();
    const Outcome outcome = run(onDisk + "--rate 0 --io-engine io_uring",
                                "timeout --foreground -s KILL 2 " REFUSE + shortage + "$run >out");
    if (outcome.errors.find("io_uring is refused") != std::string::npos) {
        GTEST_SKIP() << outcome.errors;
    }
    EXPECT_EQ(outcome.exitCode, 128 + SIGKILL) << outcome.errors;
    EXPECT_LT(processorMs() - before, 400);
    EXPECT_NE(outcome.errors.find("lacks the resources"), std::string::npos) << outcome.errors;
}

TEST_F(ProgramTest, AnInterruptionClosesAndReportsTheRunningPeriod) {
    for (const char* signal : {"INT", "TERM"}) {
        const Outcome outcome = run(
            onDisk + "--max-ios 100 --rate 1000",
            "mkfifo pipe$$ && { env --default-signal=INT $run >pipe$$ & } && { head -n 1; kill -" +
                std::string(signal) + " $!; cat; } <pipe$$ >out; wait $!");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
        EXPECT_GE(outcome.reports.size(), 2U);
        EXPECT_EQ(outcome.countedIos(), 100U);
        EXPECT_EQ(outcome.completedIos(), 100U);
        EXPECT_TRUE(std::filesystem::is_empty(disk));
    }
}

// The program stops by itself, and its reader does not read.
TEST_F(ProgramTest, ASignalEndsAProgramThatWaitsForItsReader) {
    const Outcome outcome = run(
        onDisk + "--reports 1 --log-level info --log log",
        "mkfifo pipe && exec 9<>pipe && "
        "{ dd if=/dev/zero of=pipe bs=65536 count=1 oflag=nonblock 2>dd || true; } && "
        "{ env --default-signal=INT $run >pipe & } && export pid=$! && "
        "bash -c 'grep -q -m 2 \"sending analytics\" <(tail --pid=$pid -n +1 -F log 2>log2)' && "
        "kill -INT $pid; wait $pid");
    EXPECT_EQ(outcome.exitCode, 130) << outcome.errors;
}

TEST_F(ProgramTest, AHangUpReopensTheOutput) {
    const Outcome outcome = run(
        onDisk + "--reports 3 --log-level info --log log --output reports",
        "{ $run & } && export pid=$! && "
        "bash -c 'grep -q -m 1 \"sending analytics\" <(tail --pid=$pid -n +1 -F log 2>log2)' && "
        "mv reports out && kill -HUP $pid; wait $pid");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    const std::string reopened = read("reports");
    EXPECT_GE(std::count(reopened.begin(), reopened.end(), '\n'), 2);
    EXPECT_EQ(std::count(reopened.begin(), reopened.end(), '\n') +
                  std::count(outcome.output.begin(), outcome.output.end(), '\n'),
              4);
}

TEST_F(ProgramTest, ATextReportHoldsEachFigureUnderItsName) {
    const Outcome outcome = run("--path disk --size 1M --interval 1 --reports 1");
    for (const char* part :
         {"period ", "cm1  fast", "> 100 ms", "p99.9 ", "high-latency episodes: "}) {
        EXPECT_NE(outcome.output.find(part), std::string::npos) << part;
    }
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
    const std::string days = "--days Wed,mon --hour 5 --show-schedule 4";
    EXPECT_EQ(run(days, "$run | cut -c 1-4,15-17 | sort | tr -d '\\n' >out").output,
              "Mon  05Mon  05Wed  05Wed  05");
    const std::string weekly = "--interval 604800 --show-schedule 3";
    EXPECT_EQ(run(weekly, "$run | cut -c 1-4,15-26 | uniq | wc -l >out").output, "1\n");
}

TEST_F(ProgramTest, WhatCannotBeDoneIsSaidInOneLine) {
    std::ofstream(folder + "/bad.toml") << "\nt_StorageAnalyticsIntervalSec = \"soon\"\n";
    for (const std::string row :
         {"2 --nonsense|--nonsense", "2 --intreval 5|did you mean '--interval'",
          "2 --interval 0|a whole number from 1 to 4294967",
          "2 --format xml|'xml' is not one of jsonl, text",
          "2 --io-engine x|'x' is not one of auto, io_uring, threads",
          "2 --block-size 1000|multiple of 512", "2 --size 4K --block-size 8K|at least one block",
          "2 --days mon,xyz --hour 5|'xyz' is no day; expected", "2 --days , --hour 5|'' is no day",
          "2 --days mon --hour 24|from 0 to 23", "2 --days mon --hour 5 --interval 5|--interval",
          "1 --path /proc/none|in '/proc/none': No such file",
          "1 --size 4000000G|expected room for",
          "1 --tweaks bad.toml|bad.toml:2: t_StorageAnalyticsIntervalSec",
          "1 --log /proc/none/log|/proc/none/log",
          "1 --output /proc/none/out|cannot open '/proc/none/out'"}) {
        const std::size_t bar = row.find('|'); // between the options and what is said
        const Outcome outcome = run(row.substr(2, bar - 2));
        EXPECT_EQ(outcome.exitCode, row[0] - '0') << row;
        EXPECT_NE(outcome.errors.find(row.substr(bar + 1)), std::string::npos) << outcome.errors;
        EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1) << row;
        EXPECT_EQ(outcome.output, "") << row;
    }
    const Outcome full = run(onDisk + "--output /dev/full");
    EXPECT_EQ(full.exitCode, 3);
    EXPECT_NE(full.errors.find("cannot write to '/dev/full': No space"), std::string::npos);
}

} // namespace
