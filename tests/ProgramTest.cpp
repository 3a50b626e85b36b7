#include "common/infra/Defs.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using nlohmann::json;

// A call of the tool that refuses: the system call, the error (0: holds it for ever), the argument
// and its bits.
std::string refusing(long call, int error, const std::string& where = "0 0") {
    return REFUSE " " + std::to_string(call) + " " + std::to_string(error) + " " + where + " ";
}

// What a shell does while the program runs, once the first line has come.
std::string meanwhile(const std::string& command, const std::string& start = "") {
    return "rm -f pipe && mkfifo pipe && { " + start + " env --default-signal=INT $run >pipe & } " +
           "&& { head -n 1; " + command + "; cat; } <pipe >out; wait $!";
}

// Waits for the n-th report's line in the log, with the program's process in $pid.
std::string afterReport(int number) {
    return "export pid=$! && bash -c 'grep -q -m " + std::to_string(number) +
           " \"sending analytics\" <(tail --pid=$pid -n +1 -F log 2>log2)'";
}

// A pipe that takes nothing more.
const std::string fillPipe = "mkfifo pipe && exec 9<>pipe && { dd if=/dev/zero of=pipe bs=65536 "
                             "count=1 oflag=nonblock 2>dd || true; } && ";

// On a terminal, which shows it in `out`, with a SIGTERM after so many seconds.
std::string onTerminal(const std::string& seconds, const std::string& prefix = "") {
    return "script -qec \"timeout --foreground --preserve-status " + seconds + " " + prefix +
           "$run\" out </dev/null >script";
}

struct Row {
    const char* name;
    int code;
    const char* options;
    std::string around; // the program
    const char* part;   // of what is said
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}

const Row runs[] = {
    {"MemoryIsNoDisk", 0, "--reports 1 --path /dev/shm", "$run >out",
     "'/dev/shm' is on a file system in memory: the"},
    {"AReportIsText", 0, "--reports 1", "$run >out", "StoragePeriodicParcel  storage  20"},
    {"ARateThatIsNotReached", 0, "--reports 1 --rate 1000000 --queue-depth 1", "$run >out",
     " of the 1000000 I/Os per second that were asked for\n"},
    {"FailedIos", 1, "--reports 1 --block-size 2M --read-percent 0 --max-ios 9 --io-engine threads",
     refusing(SYS_pwrite64, EIO, "2 2097152") + "$run >out",
     "analytics-host: 9 I/Os (0 reads, 9 writes, 9 failed), 3 parcels written, 0 lost\n"},
    {"ThePage", 0, "--reports 2 --max-ios 250 --rate 500 --html page",
     R"($run >out && grep -oE '"(recordsRead":4|ios":250|addsUp":true)' page | sort -u >out)",
     "\"addsUp\":true\n\"ios\":250\n\"recordsRead\":4\n"},
    {"NoRoomForThePage", 1, "--reports 1 --html /dev/full", "$run >out",
     "cannot write the page to /dev/full: No space"},
    {"NoRoomAtAll", 3, "--output /dev/full --html /dev/full", "$run", "cannot write the page to"},
    {"NoRoomForTheOutput", 3, "--output /dev/full", "$run",
     "cannot write to '/dev/full': No space"},
    {"NoStandardOutput", 3, "--reports 1", "$run >&-", "cannot write to standard output"},
    {"NoReader", 3, "--reports 1", "mkfifo pipe && exec 8<>pipe 7>pipe 8>&- && $run >&7",
     "0 parcels written, 3 lost\n"},
    {"AHangUp", 0, "--reports 3 --log-level info --log log --output reports",
     "{ $run & } && " + afterReport(1) +
         " && mv reports first && kill -HUP $pid; wait $pid && "
         "test $(wc -l <first) -lt 24 && grep -h cm1 first reports | wc -l >out",
     "3\n"},
    {"AnEngineThatIsAway", 0,
     "--reports 1 --output copy --kafka 127.0.0.1:1 --topic t --spool spool --shutdown-timeout 1",
     "$run && $run && test $(grep -c '^[A-Z]' copy) = 6",
     "pushed=3 restored=3 delivered=0 failed=0 dropped=0 evicted=0 waiting=6\n"},
    // Waits, told to a terminal; an end in time.
    {"APageInAPipe", 1, "--reports 1 --shutdown-timeout 1 --html pipe",
     "mkfifo pipe && exec 9<>pipe && $run >out",
     "analytics-host: the page is not written: the end took too long\n"},
    {"ALongFilling", 128 + SIGTERM, "", onTerminal("4", refusing(SYS_pwrite64, EINTR)),
     "analytics-host: filling the scratch file, 0 of 2 MiB "},
    {"AReaderThatDoesNotRead", 3, "--reports 1 --output pipe --shutdown-timeout 3",
     fillPipe + onTerminal("9"),
     "analytics-host: waiting for the reports' reader; a further signal ends at once "},
    {"ADiskThatDoesNotAnswer", 0,
     "--reports 1 --block-size 2M --read-percent 0 --io-engine threads --shutdown-timeout 3",
     onTerminal("2", refusing(SYS_pwrite64, 0, "2 2097152")),
     "analytics-host: waiting for 8 I/Os in flight; a further signal ends at once "}};

const Row starts[] = {
    {"AnUnknownOption", 2, "--nonsense", "$run", "'--nonsense' is not an option (see --help)"},
    {"NoFolder", 1, "--path /proc/none", "$run", "in '/proc/none': No such file"},
    {"NoRoomForTheFile", 1, "", refusing(SYS_fallocate, ENOSPC) + "$run",
     "No space left on device (expected room for 2097152 bytes, see --size)"},
    {"ABadTunable", 1, "--tweaks bad.toml",
     "echo t_StorageAnalyticsIntervalSec=true >bad.toml && $run",
     "bad.toml:1: t_StorageAnalyticsIntervalSec"},
    {"NoLog", 1, "--log /proc/none/log", "$run", "/proc/none/log"},
    {"NoPage", 1, "--html /proc/none/page", "$run",
     "cannot write the page to /proc/none/page: No such"},
    {"NoOutput", 1, "--output /proc/none/out", "$run", "cannot open '/proc/none/out'"},
    {"NoSchedule", 1, "--show-schedule 1", "$run >/dev/full",
     "cannot write the schedule to standard output"},
    {"NoIoUring", 1, "--io-engine io_uring", // before there is a file, which would be refused too
     refusing(SYS_fallocate, ENOSPC) + refusing(SYS_io_uring_setup, EPERM) + "$run",
     "io_uring is refused"},
    {"NoThread", 1, "", refusing(SYS_clone3, EAGAIN) + "$run",
     "cannot start the forwarder's thread: "},
    {"ABlockSizeThatCannotBeRead", 1, "--block-size 2M",
     refusing(SYS_pread64, EINVAL, "2 2097152") + "$run",
     "cannot read 2097152 bytes in '.': Invalid argument (expected a multiple of the disk's"}};

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
        return outcome;
    }

    Outcome expect(const Row& row) {
        const auto& [name, code, options, around, part] = row;
        std::filesystem::remove(folder + "/pipe");
        Outcome outcome = run(std::string("--size 2M --interval 1 ") + options, around);
        if (outcome.errors.find("left out") == std::string::npos) { // an engine, when it was built
            EXPECT_EQ(outcome.exitCode, code) << name << outcome.errors;
            EXPECT_NE((outcome.output + outcome.errors).find(part), std::string::npos)
                << outcome.output << outcome.errors;
        }
        return outcome;
    }

    const std::string folder = testing::TempDir() + "analytics." + std::to_string(getpid());
    const std::string disk = folder + "/disk";
    const std::string onDisk = "--path disk --size 2M --format jsonl --interval 1 ";
};

TEST_F(ProgramTest, EveryIoIsInOneReportAndInTheSummary) {
    const Outcome outcome = run(onDisk + "--reports 2 --rate 0 --queue-depth 5",
                                refusing(SYS_io_uring_setup, EPERM) + "$run >out");
    EXPECT_EQ(outcome.exitCode, 0);
    std::smatch found;
    const std::regex expected(
        "[^\n]*threads make the I/Os: io_uring is refused[^\n]*\nwhole run\n[^]*\n  all +(\\d+)\n"
        "  failed +0\n[^]*\n  periods      2\n  duration     (\\d\\S*) s\n  folder       disk\n"
        "  file system  (\\S+)\n  device       (\\S+)\n  engine       threads\n[^]*\n"
        "analytics-host: (\\d+) I/Os \\((\\d+) reads, (\\d+) writes, 0 failed\\), "
        "4 parcels written, 0 lost\nanalytics-host: account: pushed=4 restored=0 "
        "delivered=4 failed=0 dropped=0 evicted=0 waiting=0\n");
    ASSERT_TRUE(std::regex_match(outcome.errors, found, expected)) << outcome.errors;
    EXPECT_EQ(found[1], std::to_string(outcome.countedIos()));
    EXPECT_EQ(found[1], found[5]);
    EXPECT_NEAR(std::stod(found[6]), 0.7 * std::stod(found[1]), 0.1 * std::stod(found[1]));
    EXPECT_NEAR(std::stod(found[7]), 0.3 * std::stod(found[1]), 0.1 * std::stod(found[1]));
    EXPECT_GE(std::stod(found[2]), 1.9);
    EXPECT_LE(std::stod(found[2]), 100);
    ASSERT_EQ(outcome.reports.size(), 2U);
    EXPECT_EQ(outcome.reports[0]["text"], "[Latency Threshold=50000][eq=50000]");
    EXPECT_EQ(outcome.reports[1]["u64Entries"]["cd11"], 1);
    EXPECT_EQ(outcome.reports[1]["u32Entries"]["boundVerySlowUs"], 100'000);
    const auto longest = std::max(outcome.reports[0]["u32Entries"]["maxUs"].get<double>(),
                                  outcome.reports[1]["u32Entries"]["maxUs"].get<double>());
    EXPECT_EQ(outcome.last["eventName"], "HostMaximaParcel");
    EXPECT_EQ(outcome.last["category"], "storage");
    EXPECT_EQ(outcome.last["u64Entries"]["deepestQueue"], 5);
    EXPECT_NEAR(outcome.last["u64Entries"]["longestIoUs"].get<double>(), longest, 1);
    EXPECT_TRUE(std::filesystem::is_empty(disk));
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
    const std::string start = GetParam() ? "unshare --pid --fork" : "timeout --foreground 99";
    const std::string kill = "kill -$signal $(cat /proc/$!/task/$!/children)";
};

TEST_P(SignalTest, AnInterruptionReportsTheRunningPeriod) {
    for (const std::string signal : {"INT", "TERM", "HUP"}) {
        const Outcome outcome = run(onDisk + "--max-ios 100 --rate 1000",
                                    "signal=" + signal + " && " + meanwhile(kill, start));
        EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
        EXPECT_GE(outcome.reports.size(), 2U);
        EXPECT_EQ(outcome.countedIos(), 100U);
        EXPECT_NE(outcome.errors.find("\nanalytics-host: 100 I/Os ("), std::string::npos);
        EXPECT_TRUE(std::filesystem::is_empty(disk));
    }
}

// The program stops by itself, and its reader does not read.
TEST_P(SignalTest, ASignalEndsAProgramThatWaitsForItsReader) {
    const Outcome outcome = run(onDisk + "--reports 1 --log-level info --log log",
                                "signal=INT && " + fillPipe + "{ " + start +
                                    " env --default-signal=INT $run >pipe & } && " +
                                    afterReport(2) + " && " + kill + "; wait $!");
    EXPECT_EQ(outcome.exitCode, 130) << outcome.errors;
}

INSTANTIATE_TEST_SUITE_P(, SignalTest, testing::Bool(), [](const auto& isFirst) {
    return isFirst.param ? "ProcessOne" : "AnyProcess";
});

TEST_F(ProgramTest, AHaltIsNotMadeUpFor) {
    const Outcome outcome =
        run(onDisk + "--reports 4 --rate 1000",
            meanwhile("kill -STOP $!; timeout 2 tail -f /dev/null; kill -CONT $!"));
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_LE(outcome.countedIos(), outcome.sumOf("periodMs") - 2'000 + 200);
}

TEST_F(ProgramTest, TunablesTakeEffectWhileItRuns) {
    std::ofstream(folder + "/off.toml") << "";
    const Outcome outcome = run(onDisk + "--reports 3 --tweaks off.toml",
                                meanwhile("echo t_disablePeriodicAnalytics=true >off.toml"));
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_GE(outcome.reports.size(), 1U);
    EXPECT_LT(outcome.reports.size(), 3U);
    EXPECT_EQ(outcome.last["eventName"], "HostMaximaParcel");
    EXPECT_EQ(outcome.account["u64Entries"]["discarded"], 3 - outcome.reports.size());
    EXPECT_EQ(outcome.account["u64Entries"]["pushed"], outcome.reports.size() + 1);
}

class RunTest : public ProgramTest, public testing::WithParamInterface<Row> {};

TEST_P(RunTest, WhatHappenedIsSaid) {
    expect(GetParam());
}

INSTANTIATE_TEST_SUITE_P(, RunTest, testing::ValuesIn(runs), testing::PrintToStringParamName());

TEST_F(ProgramTest, WhatCannotBeDoneIsSaidInOneLine) {
    for (const Row& row : starts) {
        const Outcome outcome = expect(row);
        EXPECT_EQ(outcome.errors.find("analytics-host: "), 0U) << outcome.errors;
        EXPECT_EQ(outcome.errors.find('\n'), outcome.errors.size() - 1) << outcome.errors;
        EXPECT_EQ(outcome.output, "") << outcome.errors;
    }
}

} // namespace
