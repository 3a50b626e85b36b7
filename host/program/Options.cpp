#include "host/program/Options.h"

#include "common/infra/StringUtils.h"
#include "common/infra/Tweaks.h"
#include "host/program/ExitCodes.h"
#include "host/services/LogService.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <iostream>
#include <limits>
#include <map>

namespace {

// The timer takes milliseconds in 32 bits.
constexpr u32 maxIntervalSecs = std::numeric_limits<u32>::max() / OneSecondInMs;
constexpr u32 maxQueueDepth = 4096;
constexpr u64 sectorSize = 512;
constexpr u64 maxBlockSize = 16U << 20U;

const std::map<std::string, ParcelFormat> formats = {{"text", ParcelFormat::Text},
                                                     {"jsonl", ParcelFormat::JsonLines}};

const std::map<std::string, IoEngine::Kind> ioEngines = {{"auto", IoEngine::Kind::Automatic},
                                                         {"io_uring", IoEngine::Kind::IoUring},
                                                         {"threads", IoEngine::Kind::Threads}};

const std::map<std::string, LogLevel> logLevels = {
    {"assert", AssertLevel}, {"fatal", FatalLevel}, {"error", ErrorLevel}, {"warn", WarnLevel},
    {"info", InfoLevel},     {"debug", DebugLevel}, {"ctr", CtrLevel}};

const char* const description =
    "Runs the storage-latency report on this machine's disk: makes real reads and writes on a "
    "scratch\n"
    "file, and writes each report to standard output. The log goes to standard error.\n"
    "SIGINT or SIGTERM closes and reports the running period; a second signal ends at once.";

const char* const footer = "Exit codes: 0 done; 1 something failed; 2 bad command line; 3 a report "
                           "was lost or memory leaked.";

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

// A number in decimal digits: the conversion to an unsigned type would let -1 through.
std::string isWholeNumber(const std::string& text) {
    const bool isNumber =
        !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    return isNumber ? "" : "'" + text + "' is not a whole number";
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
        ->check(isWholeNumber)
        ->check(CLI::Range(u64{1}, std::numeric_limits<u64>::max()))
        ->option_text("N");
    addChoice(app, "--format", options.format, formats,
              "Reports as text to read, or as jsonl, one JSON object a line (default text)");
    app.add_option("--output", options.outputFile,
                   "Append the reports to this file (default: standard output)")
        ->option_text("FILE");
    app.add_option("--tweaks", options.tweaksFile,
                   "TOML file of tunables; the live ones follow it while the program runs")
        ->option_text("FILE");
}

// Keeps the lines to itself that the library logs of a list that is about to be refused.
class SilentLog : public ILogSink {
public:
    SilentLog() : m_previous(LogService::setSink(this)) {}
    ~SilentLog() override { LogService::setSink(m_previous); }
    SilentLog(const SilentLog&) = delete;
    SilentLog& operator=(const SilentLog&) = delete;
    void write(const LogRecord& /*record*/) override {}

private:
    ILogSink* const m_previous;
};

std::vector<FixedDaysSchedulingPolicy::Days> parseDays(const std::string& list) {
    const SilentLog silent;
    const char* const expected =
        "expected days, as in mon,wed or 1,3: sun, mon, tue, wed, thu, fri, "
        "sat, or 0 (Sunday) to 6";
    for (const std::string& token : StringUtils::splitStr(list, ',')) {
        if (!token.empty() && FixedDaysSchedulingPolicy::createDaysFromString(token).empty()) {
            throw CLI::ValidationError("--days", "'" + token + "' is no day; " + expected);
        }
    }
    auto days = FixedDaysSchedulingPolicy::createDaysFromString(list);
    if (days.empty()) {
        throw CLI::ValidationError("--days", "the list is empty; " + std::string(expected));
    }
    return days;
}

void addScheduleOptions(CLI::App& app, Options& options) {
    auto* interval = app.add_option("--interval", options.intervalSecs,
                                    "Seconds between reports, 1 to 4294967 (default 5, or "
                                    "t_StorageAnalyticsIntervalSec of "
                                    "--tweaks)")
                         ->check(isWholeNumber)
                         ->check(CLI::Range(u32{1}, maxIntervalSecs))
                         ->option_text("SECONDS");
    auto* days =
        app.add_option_function<std::string>(
               "--days",
               [&options](const std::string& list) { weekly(options).days = parseDays(list); },
               "Report on these weekdays in place of --interval, as in mon,wed or 1,3 (0 is "
               "Sunday); needs --hour")
            ->excludes(interval)
            ->option_text("LIST");
    auto* hour = app.add_option_function<u32>(
                        "--hour", [&options](u32 given) { weekly(options).hour = given; },
                        "Hour of the day, UTC, for --days, 0 to 23")
                     ->check(isWholeNumber)
                     ->check(CLI::Range(u32{0}, u32{23}))
                     ->needs(days)
                     ->option_text("H");
    days->needs(hour);
    app.add_option("--show-schedule", options.showSchedule,
                   "Print the next N moments at which reports fall due, 1 to 10000, and end")
        ->check(isWholeNumber)
        ->check(CLI::Range(u64{1}, u64{10'000}))
        ->option_text("N");
}

void addLoadOptions(CLI::App& app, Options& options) {
    addSize(app, "--size", options.size,
            "Bytes of the scratch file, with K, M or G, at least one block (default 64M)");
    addSize(app, "--block-size", options.blockSize,
            "Bytes of an I/O, with K or M: a multiple of 512 up to 16M (default 4K)");
    app.add_option("--queue-depth", options.queueDepth,
                   "I/Os in flight at the most, 1 to 4096 (default 8)")
        ->check(isWholeNumber)
        ->check(CLI::Range(u32{1}, maxQueueDepth))
        ->option_text("N");
    addChoice(app, "--io-engine", options.ioEngine, ioEngines,
              "What makes the I/Os: io_uring, threads, or auto:\n"
              "threads where io_uring is refused (default auto)");
    app.add_option("--read-percent", options.readPercent, "Share of reads, in percent (default 70)")
        ->check(isWholeNumber)
        ->check(CLI::Range(u32{0}, u32{100}))
        ->option_text("PERCENT");
    app.add_option(
           "--rate", options.rate,
           "I/Os per second, up to 10000000 (default 200; 0: as fast as the queue depth allows)")
        ->check(isWholeNumber)
        ->check(CLI::Range(u32{0}, u32{10'000'000}))
        ->option_text("IOPS");
    app.add_option("--max-ios", options.maxIos,
                   "Make so many I/Os and be idle from then on (default: no limit)")
        ->check(isWholeNumber)
        ->option_text("N");
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

// What no single option can tell.
void checkTogether(const Options& options) {
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
    addLogOptions(app, options);
    try {
        app.parse(argc, argv);
        checkTogether(options);
    } catch (const CLI::Success& answered) { // --help, --version
        return {std::nullopt, app.exit(answered)};
    } catch (const CLI::ParseError& error) {
        std::cerr << "analytics-host: " << error.what() << " (see --help)" << std::endl;
        return {std::nullopt, exitUsage};
    }
    return {options, exitDone};
}
