#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/Tweaks.h"
#include "host/program/Options.h"
#include "host/program/RunSummary.h"
#include "host/program/Schedule.h"
#include "host/program/ShutdownWatch.h"
#include "host/program/StopRequest.h"
#include "host/services/Clock.h"
#include "host/services/LogService.h"
#include "host/testing/Installed.h"
#include "tests/support/Files.h"

#include <poll.h>

namespace {

ParsedCommandLine parse(const std::string& line) {
    std::istringstream stream("analytics-host " + line);
    std::vector<std::string> words;
    for (std::string word; stream >> std::quoted(word);) {
        words.push_back(word);
    }
    std::vector<const char*> arguments;
    std::transform(words.begin(), words.end(), std::back_inserter(arguments),
                   [](const std::string& word) { return word.c_str(); });
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

// Each field, in the order of its declaration; 0 or - where there is none.
std::string toText(const Options& o) {
    std::ostringstream text;
    const ForwardingOptions& f = o.forwarding;
    const SpoolOptions spool = f.spool.value_or(SpoolOptions{"-", 0, false});
    text << o.path << " " << o.intervalSecs.value_or(0) << " "
         << (o.weekly ? std::to_string(o.weekly->days.size()) + "d" : "-")
         << (o.weekly ? o.weekly->hour : 0) << " " << o.showSchedule << " " << o.reports << " "
         << (o.format == ParcelFormat::Text ? "text" : "json") << " " << o.outputFile << o.htmlFile
         << o.tweaksFile << o.logFile << " " << o.size << " " << o.blockSize << " "
         << static_cast<int>(o.ioEngine) << " " << o.queueDepth << " " << o.readPercent << " "
         << o.rate << " " << o.maxIos.value_or(~u64{0}) << " " << toString(o.logLevel) << " "
         << o.abortOnAssert << "; " << f.hostId << f.service << f.kafkaBrokers << f.kafkaTopic
         << f.kafkaConfig << f.kafkaProperties.size() << f.nats.urls << f.nats.subject
         << f.nats.credentials << f.nats.tlsCa << f.nats.tlsCert << f.nats.tlsKey << f.prometheus
         << " " << spool.path << spool.limitBytes << spool.isDurable << " "
         << f.shutdownTimeoutSecs;
    return text.str();
}

TEST(OptionsTest, EachSetsItsField) {
    const std::pair<const char*, const char*> rows[] = {
        {"", ". 0 -0 0 0 text  67108864 4096 0 8 70 200 18446744073709551615 warn 0; 0 -00 5"},
        {"--path p --interval 4294967 --show-schedule 10000 --reports 7 --format jsonl --output o "
         "--html h --tweaks t --log l --size 2G --block-size 16M --io-engine threads "
         "--queue-depth 4096 --read-percent 100 --rate 10000000 --max-ios 9 --log-level ctr "
         "--abort-on-assert --host-id i --service s --kafka b --topic t --kafka-config c "
         "--kafka-property x=1 --kafka-property y=2 --spool f --shutdown-timeout 3600",
         "p 4294967 -0 10000 7 json ohtl 2147483648 16777216 2 4096 100 10000000 9 ctr 1; "
         "isbtc2 f2684354560 3600"},
        {"--days mon-fri --hour 23 --show-schedule 1 --reports 1 --format text --size 1k "
         "--block-size 1024 --io-engine io_uring --queue-depth 1 --read-percent 0 --rate 0 "
         "--max-ios 0 --log-level assert --nats u --subject s --nats-creds c --nats-ca a "
         "--nats-cert t --nats-key k --prometheus p --spool f --spool-limit 1M --durable "
         "--shutdown-timeout 1",
         ". 0 5d23 1 1 text  1024 1024 1 1 0 0 0 assert 0; 0uscatkp f10485761 1"}};
    for (const auto& [line, fields] : rows) {
        const ParsedCommandLine parsed = parse(line);
        ASSERT_TRUE(parsed.options) << line;
        EXPECT_EQ(toText(*parsed.options), fields) << line;
    }
}

// What a command line that is refused is answered.
std::string refusalOf(const std::string& line) {
    testing::internal::CaptureStderr();
    const ParsedCommandLine parsed = parse(line);
    EXPECT_FALSE(parsed.options) << line;
    EXPECT_EQ(parsed.exitCode, 2) << line;
    return testing::internal::GetCapturedStderr();
}

// Each row is options, values of the last one, and what is said of that option: $ is the value.
TEST(OptionsTest, WhatIsWrongIsNamedInOneLine) {
    const std::tuple<std::string, const char*, const char*> rows[] = {
        {"--interval", "0 4294968", ": '$' is not a whole number from 1 to 4294967"},
        {"--reports", "0 -1", ": '$' is not a whole number from 1 to 18446744073709551615"},
        {"--queue-depth", "0 4097 4x", ": '$' is not a whole number from 1 to 4096"},
        {"--read-percent", "-1 101", ": '$' is not a whole number from 0 to 100"},
        {"--rate", "-1 10000001", ": '$' is not a whole number from 0 to 10000000"},
        {"--max-ios", "-1 x", ": '$' is not a whole number from 0 to 18446744073709551615"},
        {"--show-schedule", "0 10001", ": '$' is not a whole number from 1 to 10000"},
        {"--shutdown-timeout", "0 3601", ": '$' is not a whole number from 1 to 3600"},
        {"--days mon --hour", "-1 24", ": '$' is not a whole number from 0 to 23"},
        {"--hour 5 --days", "xyz",
         ": '$' is no day; expected days, as in mon,wed or 1-5: sun to sat, "
         "their full names, or 0 (Sunday) to 6"},
        {"--size", "-1 1T 17179869184G",
         ": '$' is no size; expected a whole number of bytes, or of K, M or G, as in 64M"},
        {"--format", "xml", ": '$' is not one of jsonl, text"},
        {"--io-engine", "x", ": '$' is not one of auto, io_uring, threads"},
        {"--log-level", "loud", ": '$' is not one of assert, ctr, debug, error, fatal, info, warn"},
        {"--block-size", "1000 16777728 0", ": expected a multiple of 512 bytes up to 16M, got $"},
        {"--block-size 1K --size", "1023", ": expected at least one block (1024 bytes), got $"},
        {"--path", "\"\"", ": is empty; expected a folder"},
        {"--host-id", "\"a b\"",
         ": '$' is no name; expected 1 to 255 printable characters without a space"},
        {"--spool", "s", ": needs an engine, --kafka or --nats"},
        {"--kafka a --topic t --spool s --spool-limit", "1048575",
         ": expected at least 1M, got $"}};
    for (const auto& [options, values, said] : rows) {
        std::istringstream stream(values);
        for (std::string value; stream >> std::quoted(value);) {
            std::ostringstream line;
            line << options << " " << std::quoted(value);
            EXPECT_EQ(refusalOf(line.str()),
                      "analytics-host: " + options.substr(options.rfind("--")) +
                          std::regex_replace(said, std::regex("\\$"), value) + " (see --help)\n");
        }
    }
}

// Each row is a command line and two options that the answer names, in whatever words.
TEST(OptionsTest, WhatIsWrongNamesBothOptions) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"--days mon --hour 5 --interval 5", "--interval", "--days"},
        {"--days mon", "--days", "--hour"},
        {"--hour 5", "--hour", "--days"},
        {"--kafka a", "--kafka", "--topic"},
        {"--topic a", "--topic", "--kafka"},
        {"--nats a", "--nats", "--subject"},
        {"--subject a", "--subject", "--nats"},
        {"--kafka a --topic t --nats a --subject a", "--kafka", "--nats"},
        {"--durable", "--durable", "--spool"},
        {"--itervall=5", "'--itervall=5' is not an option", "'--interval'"}};
    for (const auto& [line, one, other] : rows) {
        const std::string words = std::string("[^\n]*") + one + "[^\n]*" + other + "[^\n]*";
        EXPECT_TRUE(std::regex_match(
            refusalOf(line), std::regex("analytics-host: " + words + " \\(see --help\\)\n")));
    }
}

TEST(OptionsTest, HelpFits80Columns) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(parse("--help").exitCode, 0);
    const std::string help = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(holds(help, "\n  --shutdown-timeout SECONDS"));
    EXPECT_FALSE(std::regex_search(help, std::regex("[^\n]{81}"))) << help;
}

class ScheduleTest : public testing::Test {
protected:
    u64 nextMs(const Options& options) { return makePolicy(options, generator)->getNextSchedule(); }

    Tweaks tweaks;
    Installed<Tweaks, Tweaks> installed{tweaks};
    StorageAnalyticsGenerator generator;
};

TEST_F(ScheduleTest, EachMomentIsWhereTheOneBeforeItLeads) {
    setenv("TZ", "XYZ-1", 1);
    tzset();
    const std::pair<const char*, const char*> rows[] = {
        {"--days sat,wed --hour 5 --show-schedule 2",
         "Sat 1970-01-03 05:00:07 UTC   Sat 1970-01-03 06:00:07 XYZ\n"
         "Wed 1970-01-07 05:00:07 UTC   Wed 1970-01-07 06:00:07 XYZ\n"},
        {"--interval 60 --show-schedule 2",
         "Thu 1970-01-01 00:01:07 UTC   Thu 1970-01-01 01:01:07 XYZ\n"
         "Thu 1970-01-01 00:02:07 UTC   Thu 1970-01-01 01:02:07 XYZ\n"}};
    for (const auto& [line, expected] : rows) {
        const Options options = *parse(line).options;
        std::ostringstream out;
        loadTweaks(options);
        showSchedule(options, 7, out); // Thursday, seven seconds past midnight
        EXPECT_EQ(out.str(), expected) << line;
    }
    unsetenv("TZ");
}

TEST_F(ScheduleTest, TheRunKeepsTheDays) {
    const Options options = *parse("--days tue,sat --hour 3").options;
    FixedDaysSchedulingPolicy expected(options.weekly->days, 3);
    EXPECT_LE(nextMs(options) - expected.getNextSchedule() + 3'600'000, 7'200'000U) << "hours end";
}

TEST_F(ScheduleTest, TheIntervalIsTheCommandLinesElseTheFilesElseFiveSeconds) {
    const TempFolder folder;
    const std::string file = folder.write("tweaks", "t_StorageAnalyticsIntervalSec = 77\n");
    const std::pair<std::string, u64> rows[] = {
        {"", 5'000}, {"--tweaks " + file, 77'000}, {"--interval 9 --tweaks " + file, 9'000}};
    for (const auto& [line, delayMs] : rows) {
        const Options options = *parse(line).options;
        loadTweaks(options);
        EXPECT_EQ(nextMs(options), delayMs) << line;
    }
}

// Figures of their own, from this one on.
StoragePeriod period(u32 n) {
    const StorageAnalyticsCounters counters{0, {n, n + 1, n + 2, n + 3, n + 4}, 0, n + 11};
    const StorageLimits limits{50'000, {1'000, 5'000, 20'000, 100'000}};
    return {counters, limits, n + 12, n + 5, n + 6, n + 7, n + 8, n + 9, 0, n + 10, 0};
}

TEST(RunSummaryTest, PeriodsAreAddedUpAndBoundsThatChangedAreNotShown) {
    RunTotals totals;
    for (const u32 first : {10, 200, 10}) {
        totals.add(period(first));
    }
    const Options options =
        *parse("--size 3M --block-size 512 --path " + std::string(100, 'p')).options;
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
    StoragePeriod changed = period(10);
    changed.limits.bounds[3] = 7;
    totals.add(changed);
    totals.add(changed);
    const RunSummary after{totals, 0, {}, IoEngine::Kind::IoUring, options};
    EXPECT_TRUE(holds(after.text(), "cm4                changed           255"));
    EXPECT_TRUE(holds(after.text(), "\n  engine       io_uring\n"));
}

TEST(RunSummaryTest, ARateThatIsNotReachedIsTold) {
    const std::tuple<const char*, u64, const char*> rows[] = {
        {"--rate 100", 189, ""},
        {"--rate 100", 188, "94 of the 100 I/Os per second that were asked for"},
        {"--rate 100 --max-ios 188", 188, ""},
        {"--rate 1000", 1, "0 of the 1000 I/Os per second that were asked for"}};
    for (const auto& [line, made, said] : rows) {
        EXPECT_EQ(rateShortfall(*parse(line).options, made, 2 * nsPerSecond), said) << line;
    }
}

void send(int signal) {
    EXPECT_EQ(raise(signal), 0);
}

// Each row is what is sent, 0 for the program's own request, -1 for a time after which the same
// signal is another one; whether hang-ups are passed on, of which the third asks to stop; the
// signal that stopped the program, or the code with which it ended at once.
TEST(StopRequestTest, TheFirstSignalAsksAndAnotherEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::tuple<std::vector<int>, bool, int> rows[] = {
        {{SIGINT, SIGINT}, false, SIGINT},   {{SIGTERM, SIGTERM}, true, SIGTERM},
        {{SIGHUP, SIGHUP}, false, SIGHUP},   {{0}, false, 0},
        {{SIGINT, SIGTERM}, true, 143},      {{SIGTERM, SIGHUP}, true, 129},
        {{0, SIGINT}, false, 130},           {{SIGHUP, SIGHUP, SIGINT}, true, SIGINT},
        {{SIGTERM, -1, SIGTERM}, true, 143}, {{SIGHUP}, true, 0}};
    for (const auto& [sent, reopens, code] : rows) {
        const auto run = [&signals = sent, passesOn = reopens] {
            int hangUps = 0;
            StopRequest stop(passesOn ? [&] { ++hangUps < 3 ? send(SIGHUP) : stop.request(); }
                                      : std::function<void()>());
            for (const int signal : signals) {
                signal > 0 ? send(signal) : signal == 0 ? stop.request() : void();
                poll(nullptr, 0, signal < 0 ? 250 : 20); // so soon again is the same one
            }
            stop.wait();
            _exit(stop.signal());
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(code), "");
    }
}

TEST(StopRequestTest, WhatWasIgnoredStaysSoButForTerm) {
    for (const auto& [signal, isStop, after] :
         {std::tuple(SIGINT, false, SIG_IGN), {SIGHUP, false, SIG_IGN}, {SIGTERM, true, SIG_DFL}}) {
        EXPECT_NE(std::signal(signal, SIG_IGN), SIG_ERR);
        {
            StopRequest stop;
            EXPECT_FALSE(stop.isRequested());
            send(signal);
            EXPECT_EQ(stop.isRequested(), isStop) << signal;
        }
        EXPECT_EQ(std::signal(signal, SIG_DFL), after) << signal;
    }
}

TEST(ShutdownWatchTest, NoTimeIsLeftAfterTheDeadline) {
    ShutdownWatch watch([] {});
    watch.begin(std::chrono::milliseconds(-1'000));
    EXPECT_EQ(watch.left().count(), 0);
}

} // namespace
