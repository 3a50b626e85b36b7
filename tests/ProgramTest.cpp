#include "common/infra/Defs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using nlohmann::json;

// What the programs have taken that have ended.
long processorMs() {
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    return (used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1'000 +
           (used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1'000;
}

class ProgramTest : public testing::Test {
protected:
    // What a run left behind; of its JSON lines the storage reports, and what came last, before the
    // account.
    struct Outcome {
        int exitCode;
        std::string output, errors;
        std::vector<json> reports;
        json last, account;

        u64 countedIos() const {
            u64 sum = 0;
            for (const json& report : reports) {
                for (const char* each : {"cm1", "cm2", "cm3", "cm4", "cm5"}) {
                    sum += report["u32Entries"][each].get<u64>();
                }
            }
            return sum + sumOf("failedIos");
        }
        u64 sumOf(const char* u64Entry) const {
            u64 sum = 0;
            for (const json& report : reports) {
                sum += report["u64Entries"][u64Entry].get<u64>();
            }
            return sum;
        }
        // What the data path says that it made: "analytics-host: 1234 I/Os (...".
        u64 completedIos() const {
            const std::string name = "\nanalytics-host: ";
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
        Outcome outcome{WEXITSTATUS(status), read("out"), read("err"), {}, {}, {}};
        std::istringstream lines(outcome.output);
        for (std::string line; std::getline(lines, line) && line.rfind('{', 0) == 0;) {
            json record = json::parse(line);
            if (record["eventName"] == "StoragePeriodicParcel") {
                outcome.reports.push_back(record);
            }
            const bool isAccount = record["eventName"] == "ForwardingAccountParcel";
            (isAccount ? outcome.account : outcome.last) = std::move(record);
        }
        expectSum(outcome.errors);
        return outcome;
    }
    // Of the account, where it is told: all that came is where it went.
    static void expectSum(const std::string& errors) {
        std::smatch found;
        const std::regex line("analytics-host: account: pushed=(\\d+) restored=(\\d+) "
                              "delivered=(\\d+) failed=(\\d+) dropped=(\\d+) evicted=(\\d+) "
                              "waiting=(\\d+)\n");
        if (std::regex_search(errors, found, line)) {
            const auto sum = [&](std::ptrdiff_t first, std::ptrdiff_t last) {
                return std::accumulate(found.begin() + first, found.begin() + last + 1, u64{0},
                                       [](u64 so, const auto& each) { return so + stoull(each); });
            };
            EXPECT_EQ(sum(1, 2), sum(3, 7)) << errors;
        }
    }

    // The data of a page.
    json pageData(const std::string& name) const {
        const std::string page = read(name);
        const std::string begin = "id=\"data\">";
        const std::size_t at = page.find(begin) + begin.size();
        return json::parse(page.substr(at, page.find("</script>", at) - at), nullptr, false);
    }

    // A call of the tool that refuses: the system call, the error, the argument, its bits.
    static std::string refusing(long call, int error, const std::string& where = "0 0") {
        return REFUSE " " + std::to_string(call) + " " + std::to_string(error) + " " + where + " ";
    }

    // What a terminal showed when it had shown `awaited`, and the exit code after a SIGTERM then. A
    // program that is halted stands still for two seconds once it has a second thread.
    std::pair<std::string, int> onTerminal(const std::string& options, const std::string& awaited,
                                           bool halted) const {
        int terminal = -1;
        const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (child == 0) {
            const std::string script = "cd " + folder + " && exec " ANALYTICS_HOST " " + options;
            execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
        }
        if (halted) {
            const std::string threads = "/proc/" + std::to_string(child) + "/task";
            while (std::distance(std::filesystem::directory_iterator(threads), {}) < 2) {
                std::this_thread::yield();
            }
            kill(child, SIGSTOP);
            poll(nullptr, 0, 2'100);
            kill(child, SIGCONT);
        }
        std::string shown;
        char piece[512];
        for (ssize_t got = 1; got > 0 && shown.find(awaited) == std::string::npos;) {
            got = ::read(terminal, piece, sizeof piece);
            shown.append(piece, got > 0 ? got : 0);
        }
        int status = 0;
        kill(child, SIGTERM);
        waitpid(child, &status, 0);
        close(terminal);
        return {shown, WEXITSTATUS(status)};
    }

    const std::string folder = testing::TempDir() + "analytics." + std::to_string(getpid());
    const std::string disk = folder + "/disk";
    const std::string onDisk = "--path disk --size 1M --format jsonl --interval 1 ";
};

TEST_F(ProgramTest, EveryIoIsInOneReport) {
    const Outcome outcome = run(onDisk + "--reports 2 --rate 0 --queue-depth 5");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    ASSERT_EQ(outcome.reports.size(), 2U);
    EXPECT_EQ(outcome.countedIos(), outcome.completedIos());
    EXPECT_EQ(outcome.reports[0]["text"], "[Latency Threshold=50000][eq=50000]");
    EXPECT_EQ(outcome.reports[1]["u64Entries"]["cd11"], 1);
    EXPECT_NEAR(outcome.reports[1]["u64Entries"]["periodMs"].get<double>(), 1'000, 500);
    EXPECT_EQ(outcome.reports[1]["u32Entries"]["boundVerySlowUs"], 100'000);
    EXPECT_TRUE(std::filesystem::is_empty(disk));
}

TEST_F(ProgramTest, TheMaximaOfTheRunComeLast) {
    const Outcome outcome = run(onDisk + "--reports 2 --rate 0 --queue-depth 5");
    u64 longest = 0;
    for (const json& report : outcome.reports) {
        longest = std::max(longest, report["u32Entries"]["maxUs"].get<u64>());
    }
    EXPECT_EQ(outcome.last["eventName"], "HostMaximaParcel");
    EXPECT_EQ(outcome.last["category"], "storage");
    EXPECT_EQ(outcome.last["u64Entries"]["deepestQueue"], 5);
    EXPECT_NEAR(outcome.last["u64Entries"]["longestIoUs"].get<double>(),
                static_cast<double>(longest), 1);
}

TEST_F(ProgramTest, TheSummaryIsOfTheWholeRun) {
    const Outcome outcome = run(onDisk + "--reports 2 --max-ios 250 --io-engine threads");
    std::smatch found;
    const std::regex expected(
        "whole run\n[^]*\n  all +250\n  failed +0\n[^]*\n  periods      2\n"
        "  duration     (\\d\\S*) s\n  folder       disk\n"
        "  file system  (\\S+)\n  device       (\\S+)\n"
        "  engine       threads\n[^]*\nanalytics-host: 250 I/Os "
        "\\((\\d+) reads, (\\d+) writes, 0 failed\\), "
        "4 parcels written, 0 lost\nanalytics-host: account: pushed=4 restored=0 "
        "delivered=4 failed=0 dropped=0 evicted=0 waiting=0\n");
    ASSERT_TRUE(std::regex_match(outcome.errors, found, expected)) << outcome.errors;
    EXPECT_NEAR(std::stod(found[1]), 2, 0.9);
    EXPECT_EQ(std::stoi(found[4]) + std::stoi(found[5]), 250);
    EXPECT_GT(std::stoi(found[4]), std::stoi(found[5]));
}

TEST_F(ProgramTest, ThePageShowsTheWholeRun) {
    const std::pair<const char*, const char*> rows[] = {
        {"--reports 2", "$run >out"},
        {"", "mkfifo pipe && { env --default-signal=INT $run >pipe & } && "
             "{ head -n 1; kill -INT $!; cat; } <pipe >out; wait $!"}};
    for (const auto& [options, around] : rows) {
        const Outcome outcome = run("--path disk --size 1M --interval 1 --rate 500 --host-id me "
                                    "--html page " +
                                        std::string(options),
                                    around);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
        const json summary = pageData("page")["summary"];
        EXPECT_EQ(summary["ios"], outcome.completedIos()) << summary;
        EXPECT_EQ(summary["recordsRead"], summary["reports"].get<u64>() + 2)
            << "those of the maxima and of the account come last";
        EXPECT_EQ(summary["account"]["addsUp"], true);
        EXPECT_EQ(summary["missing"], 0);
        EXPECT_EQ(summary["hostsBySlowShare"][0]["host"], "me") << summary;
    }
}

TEST_F(ProgramTest, AReportIsTextByDefault) {
    const Outcome outcome =
        run("--path disk --size 1M --interval 1 --reports 1 --max-ios 0",
            "$run | sed -E 's/  [0-9]{4}-[^ ]*Z/  TIME/; s/period [0-9.]+/period P/' >out");
    EXPECT_EQ(outcome.output, R"(StoragePeriodicParcel  storage  TIME  period P s
       latency            bound        I/Os    share
  cm1  fast             <= 1 ms           0    0.0 %
  cm2  moderate         <= 5 ms           0    0.0 %
  cm3  slow            <= 20 ms           0    0.0 %
  cm4  very slow      <= 100 ms           0    0.0 %
  cm5  slowest         > 100 ms           0    0.0 %
       all                                0
       failed                             0
  p50 0 us  p90 0 us  p99 0 us  p99.9 0 us  max 0 us
  high-latency episodes: 0, mean 0 ms, longest 0 ms, sum 0 ms

HostMaximaParcel  storage  TIME
  account KEL, priority Normal, value 0
  deepestQueue = 0
  longestIoUs = 0

ForwardingAccountParcel  forwarding  TIME
  account KEL, priority Normal, value 0
  delivered = 2
  discarded = 0
  dropped = 0
  evicted = 0
  failed = 0
  outputLost = 0
  pushed = 2
  restored = 0
  waiting = 0

)");
}

TEST_F(ProgramTest, WhereIoUringIsRefusedThreadsServe) {
    const std::string around = refusing(SYS_io_uring_setup, EPERM) + "$run >out";
    const Outcome outcome = run(onDisk + "--reports 1 --rate 0", around);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_EQ(outcome.errors.find("whole run\n"), outcome.errors.find('\n') + 1)
        << "one line, then the summary: " << outcome.errors;
    EXPECT_NE(outcome.errors.find("threads make the I/Os: io_uring is refused"), std::string::npos);
    EXPECT_NE(outcome.errors.find("  engine       threads\n"), std::string::npos);
    EXPECT_EQ(outcome.countedIos(), outcome.completedIos());
}

// It refuses to take more than one I/O at a time, which is what a start tries.
TEST_F(ProgramTest, AKernelThatStaysShortOfResourcesIsNotAskedWithoutPause) {
    const long before = processorMs();
    const Outcome outcome = run(onDisk + "--rate 0 --io-engine io_uring",
                                "timeout --foreground -s KILL 2 " +
                                    refusing(SYS_io_uring_enter, EAGAIN, "1 65534") + "$run >out");
    if (outcome.errors.find("io_uring is refused") != std::string::npos) {
        GTEST_SKIP() << outcome.errors;
    }
    EXPECT_EQ(outcome.exitCode, 128 + SIGKILL) << outcome.errors;
    EXPECT_LT(processorMs() - before, 400);
    EXPECT_NE(outcome.errors.find("lacks the resources"), std::string::npos) << outcome.errors;
}

// As any process, and as process 1 of a container.
class SignalTest : public ProgramTest, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        ProgramTest::SetUp();
        if (GetParam() && std::system("unshare --pid --fork true 2>/dev/null") != 0) {
            GTEST_SKIP() << "no namespace of processes can be had here";
        }
    }
    const std::string start = std::string(GetParam() ? "{ unshare --pid --fork " : "{ ") +
                              "env --default-signal=INT $run >pipe & }";
    const std::string kill =
        std::string("kill -$signal ") + (GetParam() ? "$(cat /proc/$!/task/$!/children)" : "$!");
};

TEST_P(SignalTest, AnInterruptionReportsTheRunningPeriod) {
    for (const std::string signal : {"INT", "TERM", "HUP"}) {
        const Outcome outcome =
            run(onDisk + "--max-ios 100 --rate 1000",
                "signal=" + signal + " && rm -f pipe && mkfifo pipe && " + start +
                    " && { head -n 1; " + kill + "; cat; } <pipe >out; wait $!");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
        EXPECT_GE(outcome.reports.size(), 2U);
        EXPECT_EQ(outcome.countedIos(), 100U);
        EXPECT_EQ(outcome.completedIos(), 100U);
        EXPECT_TRUE(std::filesystem::is_empty(disk));
    }
}

// The program stops by itself, and its reader does not read.
TEST_P(SignalTest, ASignalEndsAProgramThatWaitsForItsReader) {
    const Outcome outcome =
        run(onDisk + "--reports 1 --log-level info --log log",
            "signal=INT && mkfifo pipe && exec 9<>pipe && "
            "{ dd if=/dev/zero of=pipe bs=65536 count=1 oflag=nonblock 2>dd || true; } && " +
                start +
                " && export pid=$! && bash -c 'grep -q -m 2 \"sending analytics\" "
                "<(tail --pid=$pid -n +1 -F log 2>log2)' && " +
                kill + "; wait $!");
    EXPECT_EQ(outcome.exitCode, 130) << outcome.errors;
}

INSTANTIATE_TEST_SUITE_P(, SignalTest, testing::Bool(), [](const auto& isFirst) {
    return isFirst.param ? "ProcessOne" : "AnyProcess";
});

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
              5);
}

TEST_F(ProgramTest, ALongFillingIsToldToATerminal) {
    const auto [shown, exitCode] =
        onTerminal("--path disk --size 2G", "filling the scratch file, ", true);
    EXPECT_NE(shown.find("analytics-host: filling the scratch file, "), std::string::npos) << shown;
    EXPECT_EQ(exitCode, 128 + SIGTERM);
}

TEST_F(ProgramTest, ALongWaitForTheReaderIsToldToATerminal) {
    const std::string pipe = folder + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int full = open(pipe.c_str(), O_RDWR | O_NONBLOCK);
    while (write(full, "x", 1) == 1) {
    }
    const auto [shown, exitCode] =
        onTerminal(onDisk + "--reports 1 --output pipe", "reports are written", false);
    EXPECT_NE(shown.find("waiting until the reports are written"), std::string::npos) << shown;
    EXPECT_EQ(exitCode, 128 + SIGTERM);
    close(full);
}

TEST_F(ProgramTest, AHaltIsNotMadeUpFor) {
    const Outcome outcome =
        run(onDisk + "--reports 4 --rate 1000",
            "mkfifo pipe && { $run >pipe & } && { head -n 1; kill -STOP $!; "
            "timeout 2 tail -f /dev/null; kill -CONT $!; cat; } <pipe >out; wait $!");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_LE(outcome.countedIos(), outcome.sumOf("periodMs") - 2'000 + 200);
}

TEST_F(ProgramTest, AFailedIoIsAFailure) {
    const Outcome outcome =
        run("--path disk --size 2M --block-size 2M --read-percent 0 --max-ios 9 "
            "--io-engine threads --format jsonl --interval 1 --reports 1",
            refusing(SYS_pwrite64, EIO, "2 2097152") + "$run >out");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.sumOf("failedIos"), 9U);
    EXPECT_NE(outcome.errors.find("write failed at offset=0: Input/output error\n"),
              std::string::npos)
        << outcome.errors;
    EXPECT_NE(outcome.errors.find("9 I/Os (0 reads, 9 writes, 9 failed)"), std::string::npos);
}

TEST_F(ProgramTest, TunablesTakeEffectWhileItRuns) {
    std::ofstream(folder + "/off.toml") << "";
    const Outcome outcome =
        run(onDisk + "--reports 3 --tweaks off.toml",
            "mkfifo pipe && { $run >pipe & } && { head -n 1; "
            "echo t_disablePeriodicAnalytics=true >off.toml; cat; } <pipe >out; wait $!");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_GE(outcome.reports.size(), 1U);
    EXPECT_LT(outcome.reports.size(), 3U);
    EXPECT_EQ(outcome.last["eventName"], "HostMaximaParcel");
    EXPECT_EQ(outcome.account["u64Entries"]["discarded"], 3 - outcome.reports.size());
    EXPECT_EQ(outcome.account["u64Entries"]["pushed"], outcome.reports.size() + 1);
}

// Each row is a run of a second: its exit code, options, what goes round it, what it says.
TEST_F(ProgramTest, WhatHappenedIsSaid) {
    const std::tuple<int, const char*, std::string, const char*> rows[] = {
        {0, "--reports 1 --path /dev/shm", "$run >out",
         "'/dev/shm' is on a file system in memory: the lat"},
        {0, "--path disk --reports 1 --rate 1000000 --queue-depth 1", "$run >out",
         " of the 1000000 I/Os per second that were asked for\n"},
        {0, "--path disk --reports 1 --rate 2", "$run >out", "0 lost\n"},
        {0, "--path disk --reports 1 --rate 100 --max-ios 1", "$run >out", "0 lost\n"},
        {3, "--path disk --output /dev/full", "$run", "cannot write to '/dev/full': No space"},
        {1, "--path disk --reports 1 --html /dev/full", "$run >out",
         "cannot write the page to /dev/full: No space"},
        {3, "--path disk --output /dev/full --html /dev/full", "$run", "cannot write the page to"},
        {1, "--path disk --reports 1 --shutdown-timeout 1 --html pipe",
         "mkfifo pipe && exec 9<>pipe && $run >out",
         "analytics-host: the page is not written: the end took too long\n"},
        {3, "--path disk --reports 1", "$run >&-", "cannot write to standard output"},
        {3, "--path disk --reports 1", "{ $run; echo $? >code; } | true; exit $(cat code)",
         "0 parcels written, 3 lost\n"}};
    for (const auto& [code, options, around, part] : rows) {
        const Outcome outcome = run(options + std::string(" --size 1M --interval 1"), around);
        EXPECT_EQ(outcome.exitCode, code) << options << outcome.errors;
        EXPECT_NE(outcome.errors.find(part), std::string::npos) << outcome.errors;
    }
}

// The engine is away for the whole run; a reader that does not read is no reason to stay either.
TEST_F(ProgramTest, TheEndComesInTimeAndWhatIsSpooledIsNotLost) {
    const std::string away = "--kafka 127.0.0.1:1 --topic t --spool spool --shutdown-timeout 1 ";
    for (const char* account : {"pushed=3 restored=0 delivered=0 failed=0 dropped=0 evicted=0 "
                                "waiting=3\n",
                                "pushed=3 restored=3 delivered=0 failed=0 dropped=0 evicted=0 "
                                "waiting=6\n"}) {
        const Outcome outcome = run(onDisk + "--reports 1 --output copy " + away);
        if (outcome.errors.find("left out") != std::string::npos) {
            GTEST_SKIP() << outcome.errors;
        }
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
        EXPECT_NE(outcome.errors.find(account), std::string::npos) << outcome.errors;
        EXPECT_EQ(outcome.output, "");
    }
    const std::string copy = read("copy");
    EXPECT_EQ(std::count(copy.begin(), copy.end(), '\n'), 6) << "each was accepted once";
    const Outcome stuck = run("--path disk --size 1M --interval 1 --reports 1 --shutdown-timeout 1",
                              "mkfifo pipe && exec 9<>pipe && { dd if=/dev/zero of=pipe bs=65536 "
                              "count=1 oflag=nonblock 2>dd || true; } && $run >pipe");
    EXPECT_EQ(stuck.exitCode, 3) << stuck.errors;
    EXPECT_NE(stuck.errors.find(" waiting=2\n"), std::string::npos) << stuck.errors;
}

TEST_F(ProgramTest, WhatCannotBeDoneIsSaidInOneLine) {
    std::ofstream(folder + "/bad.toml") << "\nt_StorageAnalyticsIntervalSec = \"soon\"\n";
    const std::tuple<int, const char*, std::string, const char*> rows[] = {
        {2, "--nonsense", "$run", "'--nonsense' is not an option"},
        {2, "--spool s", "$run", "--spool: needs an engine"},
        {2, "--kafka a", "$run", "requires --topic"},
        {2, "--subject a", "$run", "requires --nats"},
        {2, "--durable", "$run", "requires --spool"},
        {2, "--kafka a --topic t --spool s --spool-limit 1048575", "$run", "at least 1M"},
        {2, "--shutdown-timeout 0", "$run", "a whole number from 1 to 3600"},
        {2, "--host-id=a\\ b", "eval $run", "'a b' is no name"},
        {1, "--path /proc/none", "$run", "in '/proc/none': No such file"},
        {1, "--size 4000000G", "$run", "expected room for"},
        {1, "--tweaks bad.toml", "$run", "bad.toml:2: t_StorageAnalyticsIntervalSec"},
        {1, "--log /proc/none/log", "$run", "/proc/none/log"},
        {1, "--html /proc/none/page", "$run", "cannot write the page to /proc/none/page: No such"},
        {1, "--output /proc/none/out", "$run", "cannot open '/proc/none/out'"},
        {1, "--show-schedule 1", "$run >/dev/full", "cannot write the schedule"},
        // A file as large as this one would be refused, had it come to that.
        {1, "--path disk --io-engine io_uring --size 4000000G",
         refusing(SYS_io_uring_setup, EPERM) + "$run", "io_uring is refused"},
        {1, "--path disk", refusing(SYS_clone3, EAGAIN) + "$run", "cannot start the forwarder"},
        {1, "--path disk --block-size 16M --size 16M",
         refusing(SYS_pread64, EINVAL, "2 16777216") + "$run",
         "cannot read 16777216 bytes in 'disk': Invalid argument (expected a multiple of the "
         "disk's"}};
    for (const auto& [code, options, around, part] : rows) {
        const Outcome outcome = run(options, around);
        EXPECT_EQ(outcome.exitCode, code) << options;
        EXPECT_EQ(outcome.errors.find("analytics-host: "), 0U) << outcome.errors;
        EXPECT_NE(outcome.errors.find(part), std::string::npos) << outcome.errors;
        EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1) << options;
        EXPECT_EQ(outcome.output, "") << options;
    }
}

} // namespace
