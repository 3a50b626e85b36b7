#include "common/infra/Defs.h"
#include "tests/support/Files.h"

#include <nlohmann/json.hpp>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

using nlohmann::json;

// A call of the tool that refuses: the system call, the error (0: holds it for ever), the argument
// and its bits.
std::string refusing(long call, int error, const std::string& where = "0 0") {
    return REFUSE " " + std::to_string(call) + " " + std::to_string(error) + " " + where + " ";
}

const std::string inBackground =
    "{ timeout --foreground 99 env --default-signal=INT $run >pipe & } && ";

std::string kill(const std::string& signal) {
    return "kill -" + signal + " $(cat /proc/$!/task/$!/children)";
}

// Does something while the program runs, once the first line has come.
std::string meanwhile(const std::string& command) {
    return "rm -f pipe && mkfifo pipe && " + inBackground + "{ read -r line; echo \"$line\"; " +
           command + "; cat; } <pipe >out; wait $!";
}

// Waits for the first report's line in the log, with the program's process in $pid.
const std::string afterReport = "export pid=$! && bash -c 'grep -q \"sending analytics\" "
                                "<(tail --pid=$pid -n +1 -F log 2>log2)'";

// A pipe that takes nothing more.
const std::string fillPipe = "mkfifo pipe && exec 9<>pipe && { dd if=/dev/zero of=pipe bs=65536 "
                             "count=1 oflag=nonblock 2>dd || true; } && ";

// On a terminal, which shows it in `out`, with a SIGTERM after so many seconds.
std::string onTerminal(const std::string& seconds, const std::string& prefix = "") {
    return "script -qec \"timeout --foreground --preserve-status " + seconds + " " + prefix +
           "$run >reports\" out </dev/null >script";
}

struct Row {
    const char* name;
    int code;
    const char* options;
    std::string around; // a shell command in which $run is the program with its options
    const char* part;   // of what is said
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}

const Row runs[] = {
    {"MemoryIsNoDisk", 0, "--reports 1 --path /dev/shm", "$run >out",
     "'/dev/shm' is on a file system in memory: the"},
    {"ARateThatIsNotReached", 0, "--reports 1 --rate 1000000 --queue-depth 1", "$run >out",
     " of the 1000000 I/Os per second that were asked for\n"},
    {"FailedIos", 1, "--reports 1 --block-size 2M --read-percent 0 --max-ios 9 --io-engine threads",
     refusing(SYS_pwrite64, EIO, "2 2097152") + "$run >out",
     "analytics-host: 9 I/Os: 0 reads, 9 writes, 9 failed\nanalytics-host: 3 parcels written, 0 "
     "lost\n"},
    {"ThePage", 0, "--reports 2 --max-ios 250 --rate 500 --html page",
     R"($run >out && grep -oE '"(recordsRead":4|ios":250|addsUp":true)' page | sort -u >out)",
     "\"addsUp\":true\n\"ios\":250\n\"recordsRead\":4\n"},
    {"NoRoomForThePage", 1, "--reports 1 --html /dev/full", "$run >out",
     "cannot write the page to /dev/full: No space"},
    {"NoRoomAtAll", 3, "--output /dev/full --html /dev/full", "$run",
     "cannot write to '/dev/full': No space"},
    {"NoStandardOutput", 3, "--reports 1", "$run >&-", "cannot write to standard output"},
    {"NoReader", 3, "--reports 1", "mkfifo pipe && exec 8<>pipe 7>pipe 8>&- && $run >&7",
     "0 parcels written, 3 lost\n"},
    {"AHangUp", 0, "--reports 3 --log-level info --log log --output reports",
     "{ $run & } && " + afterReport +
         " && mv reports first && kill -HUP $pid; wait $pid && "
         "test -s reports && echo rows=$(grep -h cm1 first reports | wc -l) >out",
     "rows=3\n"},
    {"AnEngineThatIsAway", 0,
     "--reports 1 --output copy --kafka 127.0.0.1:1 --topic t --spool spool --shutdown-timeout 1 "
     "--kafka-config kafka --kafka-property linger.ms=5",
     "echo linger.ms=soon >kafka && $run && $run && test $(grep -c '^[A-Z]' copy) = 6",
     "pushed=3 restored=3\nanalytics-host: account: delivered=0 failed=0 dropped=0 evicted=0 "
     "waiting=6\n"},
    {"AFullOutputAndReportsThatAreTooLarge", 3,
     "--reports 3 --output /dev/full --kafka 127.0.0.1:1 --topic t "
     "--kafka-property message.max.bytes=1000 --host-id ",
     "id=$(printf %0255d) && run=\"$run$id --service $id\" && $run",
     "failed=5 dropped=0 evicted=0 waiting=0\n"
     "analytics-host: failed for good: 5, Broker: Message size too large\n"
     "analytics-host: beside the account: discarded=0 outputLost=5\n"},
    {"Interruptions", 0, "--max-ios 100 --rate 1000",
     "for signal in INT TERM HUP; do " + meanwhile(kill("$signal")) +
         " && test $(awk '/^ +all/ {ios += $2} END {print ios}' out) = 100 && "
         "test $(grep -c cm1 out) -gt 1 || exit 9; done",
     "\nanalytics-host: 100 I/Os: "},
    {"AHalt", 0, "--reports 4 --rate 1000",
     meanwhile(kill("STOP") + "; timeout 2 tail -f /dev/null; " + kill("CONT")) +
         " && awk '/period/ {ms += 1000 * $(NF - 1)} /^ +all/ {ios += $2} "
         "END {exit ios > ms - 1800 || ios < 1000}' out",
     ""},
    {"ALiveTunable", 0, "--reports 3 --tweaks off.toml",
     ">off.toml && " + meanwhile("echo t_disablePeriodicAnalytics=true >off.toml") +
         " && reports=$(grep -c cm1 out) && test $reports -lt 3 && "
         "grep -q \"discarded=$((3 - reports)) \" err",
     " failed=0 dropped=0 evicted=0 waiting=0\n"},
    {"APageInAPipe", 1, "--shutdown-timeout 1 --html pipe --output reports",
     "mkfifo pipe && exec 9<>pipe && echo @ >out && timeout --foreground --preserve-status 2 $run",
     "@\nanalytics-host: the page is not written: the end took too long\n"},
    {"ALongFilling", 128 + SIGTERM, "", onTerminal("4", refusing(SYS_pwrite64, EINTR)),
     "analytics-host: filling the scratch file, 0 of 2 MiB                           \r"
     "                                                                               \r"},
    {"AReaderThatDoesNotRead", 3, "--reports 1 --output pipe", fillPipe + onTerminal("9"),
     "analytics-host: waiting for the reports' reader; a further signal ends at once "},
    {"ADiskThatDoesNotAnswer", 1,
     "--reports 1 --block-size 2M --read-percent 0 --io-engine threads --shutdown-timeout 4",
     onTerminal("3", refusing(SYS_pwrite64, 0, "2 2097152")),
     "analytics-host: waiting for 8 I/Os in flight; a further signal ends at once "},
    {"ALogThatHangs", 1,
     "--block-size 2M --read-percent 0 --rate 0 --io-engine threads --shutdown-timeout 1 --log "
     "pipe",
     fillPipe + "timeout --foreground --preserve-status 2 " +
         refusing(SYS_pwrite64, EIO, "2 2097152") + "$run >out",
     "analytics-host: 7 I/Os are in flight: the end took too long\n"
     "analytics-host: the running period is not reported: the end took too long\n"}};

const Row starts[] = {
    {"AFileThatMayNotGrow", 1, "", "ulimit -f 100 && $run",
     "cannot reserve the scratch file in '.': File too large"},
    {"AnUnknownOption", 2, "--nonsense", "$run", "'--nonsense' is not an option (see --help)"},
    {"NoFolder", 1, "--path /proc/none", "$run", "in '/proc/none': No such file"},
    {"NoLog", 1, "--log /proc/none/log", "$run", "/proc/none/log"},
    {"NoPage", 1, "--html /proc/none/page", "$run", "cannot write the page to /proc/none/page: "},
    {"NoOutput", 1, "--output /proc/none/out", "$run", "cannot open '/proc/none/out'"},
    {"NoSchedule", 1, "--show-schedule 1", "$run >/dev/full",
     "cannot write the schedule to standard output"},
    {"NoIoUring", 1, "--io-engine io_uring", // before there is a file, which would be refused too
     refusing(SYS_fallocate, ENOSPC) + refusing(SYS_io_uring_setup, EPERM) + "$run",
     "io_uring is refused"},
    {"NoThread", 1, "", refusing(SYS_clone3, EAGAIN) + "$run",
     "cannot start the thread that limits the end: "},
    {"ABlockSizeThatCannotBeRead", 1, "--block-size 2M --reports 1",
     refusing(SYS_pread64, EINVAL, "2 2097152") + "$run",
     "cannot read 2097152 bytes in '.': Invalid argument (expected a multiple of the disk's"}};

class ProgramTest : public testing::Test {
protected:
    struct Outcome {
        std::string output, errors;
    };

    Outcome run(const Row& row) {
        const auto& [name, code, options, around, part] = row;
        const std::string program = ANALYTICS_HOST " --size 2M --interval 1 ";
        const std::string script = "cd " + (folder / "") + " && exec 2>err && run='" + program +
                                   options + "' && " + around;
        const int exitCode = WEXITSTATUS(std::system(script.c_str()));
        Outcome outcome{folder.read("out"), folder.read("err")};
        if (outcome.errors.find("left out") == std::string::npos) { // an engine, when it was built
            EXPECT_EQ(exitCode, code) << name << outcome.errors;
            EXPECT_TRUE(holds(outcome.output + outcome.errors, part));
        }
        return outcome;
    }

    const TempFolder folder;
};

TEST_F(ProgramTest, EveryIoIsInOneReportAndInTheSummary) {
    std::filesystem::create_directory(folder / "disk");
    const Outcome outcome =
        run({"", 0, "--path disk --format jsonl --reports 2 --rate 0 --queue-depth 5",
             refusing(SYS_io_uring_setup, EPERM) + "$run >out", ""});
    std::smatch found;
    const std::regex expected(
        "[^\n]*threads make the I/Os: io_uring is refused[^\n]*\nwhole run\n[^]*\n  all +(\\d+)\n"
        "  failed +0\n[^]*\n  periods      2\n  duration     (\\d\\S*) s\n  folder       disk\n"
        "  file system  \\S+\n  device       \\S+\n  engine       threads\n[^]*\n"
        "analytics-host: \\1 I/Os: (\\d+) reads, \\d+ writes, 0 failed\n"
        "analytics-host: 4 parcels written, 0 lost\n"
        "analytics-host: account: pushed=4 restored=0\n"
        "analytics-host: account: delivered=4 failed=0 dropped=0 evicted=0 waiting=0\n");
    ASSERT_TRUE(std::regex_match(outcome.errors, found, expected)) << outcome.errors;
    EXPECT_NEAR(std::stod(found[3]), 0.7 * std::stod(found[1]), 0.1 * std::stod(found[1]));
    EXPECT_GE(std::stod(found[2]), 1.9);
    EXPECT_LE(std::stod(found[2]), 100);
    std::vector<json> records;
    std::string events;
    std::istringstream lines(outcome.output);
    for (std::string line; std::getline(lines, line);) {
        records.push_back(json::parse(line));
        events += records.back()["eventName"].get<std::string>() + " ";
    }
    ASSERT_EQ(events, "StoragePeriodicParcel StoragePeriodicParcel HostMaximaParcel "
                      "ForwardingAccountParcel ");
    u64 ios = 0;
    double longestUs = 0;
    for (const json& report : {records[0], records[1]}) {
        for (const char* each : {"cm1", "cm2", "cm3", "cm4", "cm5"}) {
            ios += report["u32Entries"][each].get<u64>();
        }
        longestUs = std::max(longestUs, report["u32Entries"]["maxUs"].get<double>());
        EXPECT_EQ(report["u64Entries"]["cd11"], 1);
    }
    EXPECT_EQ(found[1], std::to_string(ios));
    EXPECT_EQ(records[2]["category"], "storage");
    EXPECT_EQ(records[2]["u64Entries"]["deepestQueue"], 5);
    EXPECT_NEAR(records[2]["u64Entries"]["longestIoUs"].get<double>(), longestUs, 1);
    EXPECT_TRUE(std::filesystem::is_empty(folder / "disk"));
}

class RunTest : public ProgramTest, public testing::WithParamInterface<Row> {};

TEST_P(RunTest, WhatHappenedIsSaid) {
    run(GetParam());
}

INSTANTIATE_TEST_SUITE_P(, RunTest, testing::ValuesIn(runs), testing::PrintToStringParamName());

TEST_F(ProgramTest, WhatCannotBeDoneIsSaidInOneLine) {
    for (const Row& row : starts) {
        const std::string said = run(row).errors;
        EXPECT_TRUE(std::regex_match(said, std::regex("analytics-host: [^\n]*\n"))) << said;
    }
}

} // namespace
