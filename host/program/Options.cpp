#include "host/program/Options.h"

#include "common/infra/Tweaks.h"
#include "host/program/DayList.h"
#include "host/program/ExitCodes.h"
#include "host/program/Schedule.h"
#include "host/report/CommandLine.h"
#include "host/services/ReportInterval.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <limits>
#include <map>
#include <stdexcept>
#include <tuple>
#include <vector>

namespace {

constexpr u32 maxQueueDepth = 4096;
constexpr u64 sectorSize = 512;
constexpr u64 maxBlockSize = 16U << 20U;
constexpr u64 noLimit = std::numeric_limits<u64>::max();

const std::map<std::string, ParcelFormat> formats = {{"text", ParcelFormat::Text},
                                                     {"jsonl", ParcelFormat::JsonLines}};

const std::map<std::string, IoEngine::Kind> ioEngines = {{"auto", IoEngine::Kind::Automatic},
                                                         {"io_uring", IoEngine::Kind::IoUring},
                                                         {"threads", IoEngine::Kind::Threads}};

const std::map<std::string, LogLevel> logLevels = {
    {"assert", AssertLevel}, {"fatal", FatalLevel}, {"error", ErrorLevel}, {"warn", WarnLevel},
    {"info", InfoLevel},     {"debug", DebugLevel}, {"ctr", CtrLevel}};

const char* const description =
    "Runs the storage-latency report on this machine's disk: makes real reads and\n"
    "writes on a scratch file, and writes each report to standard output. The log\n"
    "goes to standard error. SIGINT or SIGTERM closes and reports the running period;\n"
    "a second signal ends at once. SIGHUP reopens the file of --output; without it,\n"
    "it stops like SIGTERM. So does the first report that cannot be written. A\n"
    "summary of the whole run comes last, on standard error.";

const char* const footer =
    "Exit codes: 0 done; 1 something failed, an I/O or a write; 2 bad command line;\n"
    "3 a report was lost or memory leaked.";

WeeklySchedule& weekly(Options& options) {
    return options.weekly ? *options.weekly : options.weekly.emplace();
}

// "64M" in bytes.
u64 parseBytes(const std::string& option, const std::string& text) {
    static const std::map<std::string, u64, CaseInsensitiveLess> units = {
        {"", 1}, {"K", u64{1} << 10U}, {"M", u64{1} << 20U}, {"G", u64{1} << 30U}};
    u64 number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto unit = units.find(end);
    if (error != std::errc() || unit == units.end() ||
        number > std::numeric_limits<u64>::max() / unit->second) {
        throw CLI::ValidationError(option, "'" + text +
                                               "' is no size; expected a whole number of "
                                               "bytes, or of K, M or G, as in 64M");
    }
    return number * unit->second;
}

void addSize(CLI::App& app, const std::string& option, u64& target, const std::string& text) {
    app.add_option_function<std::string>(
           option,
           [option, &target](const std::string& given) { target = parseBytes(option, given); },
           text)
        ->option_text("BYTES");
}

// Accepts decimal digits within bounds: the conversion to an unsigned type would let -1 through.
CLI::Validator wholeNumber(u64 least, u64 most) {
    return {[least, most](const std::string& text) {
                u64 number = 0;
                const char* const end = text.data() + text.size();
                const auto [stop, error] = std::from_chars(text.data(), end, number);
                const bool fits = error == std::errc() && stop == end && number >= least &&
                                  number <= most && !text.empty();
                return fits ? std::string()
                            : "'" + text + "' is not a whole number from " + std::to_string(least) +
                                  " to " + std::to_string(most);
            },
            ""};
}

// Accepts the names of a table, and says which they are.
template <typename T>
void addChoice(CLI::App& app, const std::string& option, T& target,
               const std::map<std::string, T>& choices, const std::string& text) {
    std::string names;
    for (const auto& choice : choices) {
        names += (names.empty() ? "" : ", ") + choice.first;
    }
    app.add_option_function<std::string>(
           option, [&target, &choices](const std::string& name) { target = choices.at(name); },
           text)
        ->check([&choices, names](const std::string& name) {
            return choices.count(name) != 0 ? std::string()
                                            : "'" + name + "' is not one of " + names;
        })
        ->option_text("NAME");
}

void addOptions(CLI::App& app, Options& options) {
    app.add_option(
           "--path", options.path,
           "Folder of the scratch file, which has no name there and is gone with the process "
           "(default: the working directory)")
        ->option_text("DIR");
    app.add_option("--reports", options.reports,
                   "Stop after N reporting periods, at least 1 (default: when interrupted)")
        ->check(wholeNumber(1, noLimit))
        ->option_text("N");
    addChoice(app, "--format", options.format, formats,
              "Reports as text to read, or as jsonl, one JSON object a line (default text)");
    app.add_option("--output", options.outputFile,
                   "Append the reports to this file (default: standard output; beside an engine, "
                   "none)")
        ->option_text("FILE");
    app.add_option("--html", options.htmlFile,
                   "Write a page with charts of the whole run to this file when the run ends")
        ->option_text("FILE");
    app.add_option("--tweaks", options.tweaksFile,
                   "TOML file of tunables; the live ones follow it while the program runs")
        ->option_text("FILE");
}

void addScheduleOptions(CLI::App& app, Options& options) {
    auto* interval =
        app.add_option("--interval", options.intervalSecs,
                       "Seconds between reports, 1 to " + std::to_string(maxReportIntervalSec) +
                           " (default " + std::to_string(programIntervalSec) + ", or " +
                           reportIntervalName + " of --tweaks)")
            ->check(wholeNumber(1, maxReportIntervalSec))
            ->option_text("SECONDS");
    auto* days = app.add_option_function<std::string>(
                        "--days",
                        [&options](const std::string& list) {
                            try {
                                weekly(options).days = parseDayList(list);
                            } catch (const std::invalid_argument& error) {
                                throw CLI::ValidationError("--days", error.what());
                            }
                        },
                        "Report on these weekdays in place of --interval: names, digits (0 is "
                        "Sunday) or ranges, as "
                        "in mon,wed or 1-5; needs --hour")
                     ->excludes(interval)
                     ->option_text("LIST");
    auto* hour = app.add_option_function<u32>(
                        "--hour", [&options](u32 given) { weekly(options).hour = given; },
                        "Hour of the day, UTC, for --days, 0 to 23")
                     ->check(wholeNumber(0, 23))
                     ->needs(days)
                     ->option_text("H");
    days->needs(hour);
    app.add_option("--show-schedule", options.showSchedule,
                   "Print the next N moments at which reports fall due, 1 to 10000, and end")
        ->check(wholeNumber(1, 10'000))
        ->option_text("N");
}

void addLoadOptions(CLI::App& app, Options& options) {
    addSize(app, "--size", options.size,
            "Bytes of the scratch file, with K, M or G, at least one block (default 64M)");
    addSize(app, "--block-size", options.blockSize,
            "Bytes of an I/O, with K or M: a multiple of 512 up to 16M (default 4K)");
    app.add_option("--queue-depth", options.queueDepth,
                   "I/Os in flight at the most, 1 to 4096 (default 8)")
        ->check(wholeNumber(1, maxQueueDepth))
        ->option_text("N");
    addChoice(app, "--io-engine", options.ioEngine, ioEngines,
              "What makes the I/Os: io_uring, threads, or auto:\n"
              "threads where io_uring is refused (default auto)");
    app.add_option("--read-percent", options.readPercent, "Share of reads, in percent (default 70)")
        ->check(wholeNumber(0, 100))
        ->option_text("PERCENT");
    app.add_option(
           "--rate", options.rate,
           "I/Os per second, up to 10000000 (default 200; 0: as fast as the queue depth allows)")
        ->check(wholeNumber(0, 10'000'000))
        ->option_text("IOPS");
    app.add_option("--max-ios", options.maxIos,
                   "Make so many I/Os and be idle from then on (default: no limit)")
        ->check(wholeNumber(0, noLimit))
        ->option_text("N");
}

// A name that goes into a message's id or key as it is.
std::string checkName(const std::string& text) {
    constexpr std::size_t longest = 255;
    const bool isName =
        !text.empty() && text.size() <= longest &&
        std::all_of(text.begin(), text.end(), [](char each) { return each > ' ' && each <= '~'; });
    return isName ? std::string()
                  : "'" + text +
                        "' is no name; expected 1 to 255 printable characters without a "
                        "space";
}

SpoolOptions& spool(ForwardingOptions& options) {
    return options.spool ? *options.spool : options.spool.emplace();
}

void addForwardingOptions(CLI::App& app, ForwardingOptions& options) {
    app.add_option("--host-id", options.hostId,
                   "Name of this machine in JSON records (default: derived from the machine's id)")
        ->check(checkName)
        ->option_text("NAME");
    app.add_option("--service", options.service,
                   "Name of the service in JSON records (default: the program's name)")
        ->check(checkName)
        ->option_text("NAME");
    app.add_option("--prometheus", options.prometheus,
                   "Show the figures of the last reports and the account at "
                   "http://ADDRESS:PORT/metrics (without an address on 127.0.0.1)")
        ->option_text("ADDRESS:PORT");
    app.add_option("--shutdown-timeout", options.shutdownTimeoutSecs,
                   "Seconds that the end may take, 1 to 3600 (default 5)")
        ->check(wholeNumber(1, 3600))
        ->option_text("SECONDS");
}

void addSpoolOptions(CLI::App& app, ForwardingOptions& options) {
    auto* file = app.add_option_function<std::string>(
                        "--spool", [&](const std::string& path) { spool(options).path = path; },
                        "Keep reports in this file until the engine has them")
                     ->option_text("FILE");
    app.add_option_function<std::string>(
           "--spool-limit",
           [&](const std::string& given) {
               spool(options).limitBytes = parseBytes("--spool-limit", given);
           },
           "Bytes of reports that the spool holds, at least 1M; beyond, the oldest go (default "
           "256M)")
        ->needs(file)
        ->option_text("BYTES");
    app.add_flag_function(
           "--durable", [&](std::int64_t) { spool(options).isDurable = true; },
           "Bring each commit of the spool to the disk, so that it survives a power cut")
        ->needs(file);
}

void addKafkaOptions(CLI::App& app, ForwardingOptions& options) {
    auto* brokers = app.add_option("--kafka", options.kafkaBrokers,
                                   "Send the reports to Apache Kafka, as HOST:PORT,HOST:PORT")
                        ->option_text("BROKERS");
    auto* topic = app.add_option("--topic", options.kafkaTopic, "Topic of --kafka")
                      ->needs(brokers)
                      ->option_text("NAME");
    brokers->needs(topic);
    app.add_option("--kafka-config", options.kafkaConfig,
                   "File of librdkafka's properties, one NAME=VALUE a line")
        ->needs(brokers)
        ->option_text("FILE");
    app.add_option("--kafka-property", options.kafkaProperties,
                   "One such property; secrets belong in the file")
        ->needs(brokers)
        ->expected(1)
        ->take_all()
        ->option_text("NAME=VALUE");
}

void addNatsOptions(CLI::App& app, ForwardingOptions& options) {
    auto* urls = app.add_option("--nats", options.nats.urls,
                                "Send the reports to NATS JetStream, as nats://HOST:PORT,...")
                     ->excludes("--kafka")
                     ->option_text("URLS");
    auto* subject =
        app.add_option("--subject", options.nats.subject, "Subject of --nats, which a stream takes")
            ->needs(urls)
            ->option_text("NAME");
    urls->needs(subject);
    const std::vector<std::tuple<const char*, std::string*, const char*>> files = {
        {"--nats-creds", &options.nats.credentials, "Credentials for --nats"},
        {"--nats-ca", &options.nats.tlsCa, "Certificates of authorities to trust for --nats"},
        {"--nats-cert", &options.nats.tlsCert, "The client's certificate for --nats"},
        {"--nats-key", &options.nats.tlsKey, "The key of --nats-cert"}};
    for (const auto& [name, target, text] : files) {
        app.add_option(name, *target, text)->needs(urls)->option_text("FILE");
    }
}

void addLogOptions(CLI::App& app, Options& options) {
    app.add_option("--log", options.logFile,
                   "Log to this file, rotated at 10 MiB (default: standard error)")
        ->option_text("FILE");
    addChoice(app, "--log-level", options.logLevel, logLevels,
              "Least severe level that is logged: assert, fatal, error, warn, info, debug or ctr "
              "(default warn)");
    app.add_flag("--abort-on-assert", options.abortOnAssert,
                 "End the process at an assertion line, for development");
}

void checkSpool(const ForwardingOptions& options) {
    constexpr u64 leastLimit = u64{1} << 20U;
    if (!options.spool) {
        return;
    }
    if (!options.hasEngine()) {
        throw CLI::ValidationError("--spool", "needs an engine, --kafka or --nats");
    }
    if (options.spool->limitBytes < leastLimit) {
        throw CLI::ValidationError("--spool-limit", "expected at least 1M, got " +
                                                        std::to_string(options.spool->limitBytes));
    }
}

// Checks that involve several options.
void checkTogether(const Options& options) {
    checkSpool(options.forwarding);
    if (options.path.empty()) {
        throw CLI::ValidationError("--path", "is empty; expected a folder");
    }
    if (options.blockSize == 0 || options.blockSize % sectorSize != 0 ||
        options.blockSize > maxBlockSize) {
        throw CLI::ValidationError("--block-size",
                                   "expected a multiple of 512 bytes up to 16M, got " +
                                       std::to_string(options.blockSize));
    }
    if (options.size < options.blockSize) {
        throw CLI::ValidationError("--size", "expected at least one block (" +
                                                 std::to_string(options.blockSize) +
                                                 " bytes), got " + std::to_string(options.size));
    }
}

} // namespace

ParsedCommandLine parseCommandLine(int argc, const char* const* argv) {
    Options options;
    CLI::App app(description, "analytics-host");
    app.set_version_flag("--version", "analytics-host " ANALYTICS_VERSION);
    app.footer(footer);
    addOptions(app, options);
    addScheduleOptions(app, options);
    addLoadOptions(app, options);
    addForwardingOptions(app, options.forwarding);
    addKafkaOptions(app, options.forwarding);
    addNatsOptions(app, options.forwarding);
    addSpoolOptions(app, options.forwarding);
    addLogOptions(app, options);
    const auto exitCode = report::parse(app, argc, argv, [&] { checkTogether(options); });
    return exitCode ? ParsedCommandLine{std::nullopt, *exitCode}
                    : ParsedCommandLine{options, exitDone};
}
