#include "host/forwarding/Record.h"
#include "host/program/Options.h"
#include "host/program/RunPage.h"
#include "host/program/RunSummary.h"
#include "host/program/Schedule.h"
#include "host/program/StopRequest.h"
#include "host/services/LogService.h"

#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/Tweaks.h"
#include "host/testing/Installed.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

ParsedCommandLine parse(const std::string& line) {
    std::istringstream stream("analytics-host " + line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    std::vector<const char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(word.c_str());
    }
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

// Each field, in the order of its declaration; 0 or - where there is none.
std::string toText(const Options& o) {
    std::ostringstream text;
    text << o.path << " " << o.intervalSecs.value_or(0) << " "
         << (o.weekly ? std::to_string(o.weekly->days.size()) + "d" : "-")
         << (o.weekly ? o.weekly->hour : 0) << " " << o.showSchedule << " " << o.reports << " "
         << (o.format == ParcelFormat::Text ? "text" : "json") << " " << o.outputFile << o.htmlFile
         << o.tweaksFile << o.logFile << " " << o.size << " " << o.blockSize << " "
         << static_cast<int>(o.ioEngine) << " " << o.queueDepth << " " << o.readPercent << " "
         << o.rate << " " << o.maxIos.value_or(~u64{0}) << " " << toString(o.logLevel) << " "
         << o.abortOnAssert;
    return text.str();
}

TEST(OptionsTest, EachSetsItsField) {
    const std::pair<const char*, const char*> rows[] = {
        {"", ". 0 -0 0 0 text  67108864 4096 0 8 70 200 18446744073709551615 warn 0"},
        {"--path p --interval 4294967 --show-schedule 10000 --reports 7 --format jsonl --output o "
         "--html h --tweaks t --log l --size 2G --block-size 16M --io-engine threads "
         "--queue-depth 4096 --read-percent 100 --rate 10000000 --max-ios 9 --log-level ctr "
         "--abort-on-assert",
         "p 4294967 -0 10000 7 json ohtl 2147483648 16777216 2 4096 100 10000000 9 ctr 1"},
        {"--days mon-fri --hour 23 --show-schedule 1 --reports 1 --format text --size 1k "
         "--block-size 1024 --io-engine io_uring --queue-depth 1 --read-percent 0 --rate 0 "
         "--max-ios 0 --log-level assert",
         ". 0 5d23 1 1 text  1024 1024 1 1 0 0 0 assert 0"},
        {"--interval 1 --block-size 512 --size 513 --io-engine auto --log-level info",
         ". 1 -0 0 0 text  513 512 0 8 70 200 18446744073709551615 info 0"}};
    for (const auto& [line, fields] : rows) {
        const ParsedCommandLine parsed = parse(line);
        ASSERT_TRUE(parsed.options) << line;
        EXPECT_EQ(toText(*parsed.options), fields) << line;
    }
}

TEST(OptionsTest, WhatIsWrongIsNamedInOneLine) {
    const std::pair<const char*, const char*> rows[] = {
        {"--nonsense", "'--nonsense' is not an option (see"},
        {"--intreval=5", "'--intreval=5' is not an option, did you mean '--interval'?"},
        {"--sxxe 1", "not an option, did you mean '--size'?"},
        {"--sxxx 1", "'--sxxx' is not an option (see"},
        {"--interval 0", "'0' is not a whole number from 1 to 4294967"},
        {"--interval 4294968", "'4294968'"},
        {"--reports 0", "'0'"},
        {"--queue-depth 0", "from 1 to 4096"},
        {"--queue-depth 4097", "'4097'"},
        {"--queue-depth 4x", "'4x'"},
        {"--read-percent 101", "from 0 to 100"},
        {"--rate -1", "'-1' is not a whole number from 0 to 10000000"},
        {"--rate 10000001", "'10000001'"},
        {"--show-schedule 10001", "from 1 to 10000"},
        {"--size -1", "'-1' is no size"},
        {"--size 1T", "'1T' is no size; expected a whole number of bytes, or of K, M or G"},
        {"--size 17179869184G", "'17179869184G' is no size"},
        {"--block-size 1000", "multiple of 512 bytes up to 16M, got 1000"},
        {"--block-size 0", "got 0"},
        {"--block-size 16777728", "got 16777728"},
        {"--size 4K --block-size 8K", "at least one block (8192 bytes), got 4096"},
        {"--format xml", "'xml' is not one of jsonl, text"},
        {"--io-engine x", "'x' is not one of auto, io_uring, threads"},
        {"--log-level loud", "'loud' is not one of assert, ctr, debug, error, fatal, info, warn"},
        {"--days mon,xyz --hour 5", "'xyz' is no day; expected days, as in"},
        {"--days mon --hour 24", "from 0 to 23"},
        {"--days mon --hour 5 --interval 5", "--interval"},
        {"--days mon", "--hour"},
        {"--hour 5", "--days"},
        {"--path=", "--path"}};
    for (const auto& [line, part] : rows) {
        testing::internal::CaptureStderr();
        const ParsedCommandLine parsed = parse(line);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_FALSE(parsed.options) << line;
        EXPECT_EQ(parsed.exitCode, 2) << line;
        EXPECT_EQ(said.find("analytics-host: "), 0U) << said;
        EXPECT_NE(said.find(part), std::string::npos) << said;
        EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
    }
}

TEST(OptionsTest, HelpFits80Columns) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(parse("--help").exitCode, 0);
    std::istringstream help(testing::internal::GetCapturedStdout());
    int options = 0;
    for (std::string line; std::getline(help, line);) {
        EXPECT_LE(line.size(), 80U) << line;
        options += line.find("  --") == 0 ? 1 : 0;
    }
    EXPECT_EQ(options, 38);
}

class ScheduleTest : public testing::Test {
protected:
    Tweaks tweaks;
    Installed<Tweaks, Tweaks> installed{tweaks};
};

TEST_F(ScheduleTest, EachMomentIsWhereTheOneBeforeItLeads) {
    setenv("TZ", "XYZ-1", 1);
    const std::pair<const char*, const char*> rows[] = {
        {"--days sat,wed --hour 5 --show-schedule 2",
         "Sat 1970-01-03 05:00:07 UTC   Sat 1970-01-03 06:00:07 XYZ\n"
         "Wed 1970-01-07 05:00:07 UTC   Wed 1970-01-07 06:00:07 XYZ\n"},
        {"--interval 60 --show-schedule 2",
         "Thu 1970-01-01 00:01:07 UTC   Thu 1970-01-01 01:01:07 XYZ\n"
         "Thu 1970-01-01 00:02:07 UTC   Thu 1970-01-01 01:02:07 XYZ\n"},
        {"--show-schedule 1", "Thu 1970-01-01 00:00:12 UTC   Thu 1970-01-01 01:00:12 XYZ\n"}};
    for (const auto& [line, expected] : rows) {
        const Options options = *parse(line).options;
        std::ostringstream out;
        loadTweaks(options);
        showSchedule(options, 7, out); // Thursday, seven seconds past midnight
        EXPECT_EQ(out.str(), expected) << line;
    }
    unsetenv("TZ");
}

TEST_F(ScheduleTest, TheRunKeepsTheDaysThatAreShown) {
    StorageAnalyticsGenerator generator;
    for (const char* day : {"sun", "mon", "tue", "wed", "thu", "fri", "sat"}) {
        const Options options =
            *parse(std::string("--hour 3 --show-schedule 1 --days ") + day).options;
        std::ostringstream shown;
        u64 delayMs = 0;
        time_t now = 0;
        do { // once more if the hour has changed meanwhile
            now = time(nullptr);
            delayMs = makePolicy(options, generator)->getNextSchedule();
        } while (now / 3'600 != time(nullptr) / 3'600);
        showSchedule(options, now, shown);
        now += static_cast<time_t>(delayMs / OneSecondInMs);
        std::ostringstream moment;
        moment << std::put_time(gmtime(&now), "%a %Y-%m-%d %H:%M:%S");
        EXPECT_EQ(shown.str().find(moment.str()), 0U) << shown.str() << moment.str();
    }
}

TEST_F(ScheduleTest, TheIntervalIsTheCommandLinesElseTheFilesElseFiveSeconds) {
    const std::string file = testing::TempDir() + "interval." + std::to_string(getpid());
    std::ofstream(file) << "t_StorageAnalyticsIntervalSec = 77\n";
    const std::pair<std::string, u64> rows[] = {{"", 5'000},
                                                {"--interval 9", 9'000},
                                                {"--tweaks " + file, 77'000},
                                                {"--interval 9 --tweaks " + file, 9'000}};
    StorageAnalyticsGenerator generator;
    for (const auto& [line, delayMs] : rows) {
        const Options options = *parse(line).options;
        loadTweaks(options);
        EXPECT_EQ(makePolicy(options, generator)->getNextSchedule(), delayMs) << line;
    }
    std::filesystem::remove(file);
}

StoragePeriod period(u32 first) {
    StoragePeriod period;
    u32 next = first;
    for (u32& ios : period.counters.storageLatency) {
        ios = next++;
    }
    for (u32 StoragePeriod::*const figure :
         {&StoragePeriod::p50Us, &StoragePeriod::p90Us, &StoragePeriod::p99Us,
          &StoragePeriod::p999Us, &StoragePeriod::maxUs, &StoragePeriod::episodes}) {
        period.*figure = next++;
    }
    period.counters.maxHighStorageLatencyDuration = next++;
    period.failedIos = next;
    period.limits = {50'000, {1'000, 5'000, 20'000, 100'000}};
    return period;
}

TEST(RunSummaryTest, PeriodsAreAddedUp) {
    RunTotals totals;
    for (const u32 first : {10, 200, 10}) {
        totals.add(period(first));
    }
    Options options;
    options.path = std::string(100, 'p');
    options.size = 3 << 20U;
    options.blockSize = 512;
    const RunSummary summary{totals, 2'500, {"ext4", "/dev/x"}, IoEngine::Kind::Threads, options};
    const std::string text = R"(whole run
  class                bound          I/Os    share
  cm1                <= 1 ms           220   19.5 %
  cm2                <= 5 ms           223   19.7 %
  cm3               <= 20 ms           226   20.0 %
  cm4              <= 100 ms           229   20.3 %
  cm5               > 100 ms           232   20.5 %
  all                                 1130
  failed                               256
  p50                 205 us  (each the highest of any period)
  p90                 206 us
  p99                 207 us
  p99.9               208 us
  max                 209 us
  episodes     250, longest 211 ms (of high latency; a period's end divides one)
  periods      3
  duration     2.5 s
  folder       ...)" + std::string(62, 'p') +
                             R"(
  file system  ext4
  device       /dev/x
  engine       threads
  block size   512
  queue depth  8
  reads        70 %
  rate         200 I/Os per second
  size         3M
)";
    EXPECT_EQ(summary.text(), text);
}

TEST(RunSummaryTest, BoundsThatChangedAreNotShown) {
    RunTotals totals;
    totals.add(period(1));
    EXPECT_FALSE(totals.limitsChanged);
    StoragePeriod changed = period(1);
    changed.limits.bounds[3] = 7;
    totals.add(changed);
    totals.add(changed);
    EXPECT_TRUE(totals.limitsChanged);
}

// Takes the tickets that are answered as delivered.
struct Delivered : IAnswers {
    void answer(std::vector<Answer> answers) override {
        for (const Answer& each : answers) {
            tickets += each.fate == Fate::Delivered ? std::to_string(each.ticket) + " " : "";
        }
    }
    std::string tickets;
};

TEST(RunPageTest, ShowsRecordsOfAnyLengthOnceItIsWritten) {
    const std::string path = testing::TempDir() + "page." + std::to_string(getpid());
    const auto read = [&] {
        std::ifstream file(path);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    std::ofstream(path) << "before";
    std::vector<Record> records(3);
    std::vector<const Record*> batch;
    for (Record& record : records) {
        record.ticket = 7 + batch.size();
        record.line =
            R"({"schema":1,"host":"h","boot":"b","sequence":)" + std::to_string(batch.size() + 1) +
            R"(,"forwardedAt":"2026-11-23T12:00:00.000Z","eventName":"Own",)"
            R"("timeStampMs":1795435200000,"stringEntries":{},"u32Entries":{},"u64Entries":{},)"
            R"("text":")" +
            std::string(batch.size() << 20U, 'x') + "\"}\n";
        batch.push_back(&record);
    }
    RunPage page(path);
    Delivered delivered;
    page.start(delivered);
    page.send(batch);
    EXPECT_EQ(delivered.tickets, "7 8 9 ");
    EXPECT_EQ(read(), "before");
    page.write();
    EXPECT_NE(read().find(R"("recordsRead":3,"duplicates":0,"missing":0,"evicted":0,)"
                          R"("notUnderstood":0)"),
              std::string::npos);
    std::filesystem::remove(path);
}

class StopRequestTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    static void send(int signal) { EXPECT_EQ(raise(signal), 0); }
};

TEST_F(StopRequestTest, ASignalAsksToStop) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        StopRequest stop;
        EXPECT_FALSE(stop.isRequested());
        send(signal);
        poll(nullptr, 0, 20);
        send(signal); // so soon again: the same one
        stop.wait();
        EXPECT_TRUE(stop.isRequested());
        EXPECT_EQ(stop.signal(), signal);
    }
}

TEST_F(StopRequestTest, TheProgramsOwnRequestIsNoSignal) {
    {
        StopRequest stop;
        stop.request();
        stop.wait();
        EXPECT_EQ(stop.signal(), 0);
    }
    EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_DFL) << "the handler is still there";
}

TEST_F(StopRequestTest, AHangUpIsPassedOn) {
    int hangUps = 0;
    StopRequest stop([&] { ++hangUps < 3 ? send(SIGHUP) : stop.request(); });
    send(SIGHUP);
    stop.wait();
    EXPECT_EQ(hangUps, 3);
    EXPECT_EQ(stop.signal(), 0);
}

TEST_F(StopRequestTest, AnotherSignalEndsTheProcess) {
    for (const auto& [first, second] :
         {std::pair(SIGINT, SIGTERM), {SIGTERM, SIGHUP}, {0, SIGINT}}) {
        EXPECT_EXIT(
            {
                StopRequest stop([] {});
                first == 0 ? stop.request() : send(first);
                send(second);
            },
            testing::ExitedWithCode(128 + second), "");
    }
}

TEST_F(StopRequestTest, WhatWasIgnoredStaysSoButForTerm) {
    for (const int signal : {SIGINT, SIGHUP, SIGTERM}) {
        EXPECT_NE(std::signal(signal, SIG_IGN), SIG_ERR);
        {
            StopRequest stop;
            send(signal);
            EXPECT_EQ(stop.isRequested(), signal == SIGTERM) << signal;
        }
        EXPECT_NE(std::signal(signal, SIG_DFL), SIG_ERR);
    }
}

} // namespace
