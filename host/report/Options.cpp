#include "host/report/Options.h"

#include "host/report/CommandLine.h"
#include "host/report/ExitCodes.h"
#include "host/report/Input.h"
#include "host/report/Moment.h"

#include <CLI/CLI.hpp>

namespace report {

namespace {

const char* const description =
    "Shows what the records of any number of hosts say about storage latency. Reads\n"
    "JSON lines, as analytics-host --format jsonl and the engines give them: from the\n"
    "files, else from standard input; plain, gzip or zstd; in any order, doubled or\n"
    "with gaps. Prints a summary, or draws a page.\n";

const char* const footer =
    "Examples:\n"
    "  analytics-report records/*.jsonl.zst\n"
    "  analytics-report --since 2026-11-23T14:00 --html disk.html day.jsonl\n"
    "  analytics-report --follow --host db7 /var/log/analytics.jsonl\n"
    "\n"
    "Times are UTC. A report counts in the step in which its period ended.\n"
    "Percentiles over several periods are the worst of the periods'.\n"
    "Exit codes: 0 done; 1 a file could not be read or written, or not to its end;\n"
    "2 bad command line.";

s64 momentOption(const std::string& name, const std::string& text) {
    const auto moment = parseMoment(text);
    if (!moment) {
        throw CLI::ValidationError(
            name, "expected a time such as 2026-11-23T14:00 or 2026-11-23, got '" + text + "'");
    }
    return *moment;
}

s64 stepOption(const std::string& text) {
    const auto duration = parseDuration(text);
    if (!duration) {
        throw CLI::ValidationError(
            "--step", "expected a number with s, m, h or d, such as 30s or 5m, got '" + text + "'");
    }
    return *duration;
}

void addOptions(CLI::App& app, Options& options) {
    app.add_option("FILE", options.files, "Files of records; - is standard input")->type_name("");
    app.add_option_function<std::string>(
           "--since",
           [&](const std::string& text) { options.choice.sinceMs = momentOption("--since", text); },
           "Leave out what is stamped before")
        ->type_name("TIME");
    app.add_option_function<std::string>(
           "--until",
           [&](const std::string& text) { options.choice.untilMs = momentOption("--until", text); },
           "Leave out what is stamped then or later")
        ->type_name("TIME");
    app.add_option("--host", options.hosts, "Only this host; may be given again")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_option_function<std::string>(
           "--step", [&](const std::string& text) { options.choice.stepMs = stepOption(text); },
           "Add reports up over steps of this length")
        ->type_name("DURATION");
    auto* json = app.add_flag("--json", options.isJson, "Print the figures as a JSON object");
    auto* html = app.add_option("--html", options.html, "Write a page with charts to this file")
                     ->type_name("FILE");
    app.add_flag("--follow", options.mustFollow, "Go on as records come in, and show them")
        ->excludes(json)
        ->excludes(html);
}

void checkTogether(const Options& options) {
    const Choice& choice = options.choice;
    if (choice.sinceMs && choice.untilMs && *choice.sinceMs >= *choice.untilMs) {
        throw CLI::ValidationError("--until", "expected a time after that of --since");
    }
}

} // namespace

ParsedCommandLine parseCommandLine(int argc, const char* const* argv) {
    Options options;
    CLI::App app(description, "analytics-report");
    app.set_version_flag("--version", "analytics-report " ANALYTICS_VERSION);
    app.footer(footer);
    addOptions(app, options);
    const auto exitCode = parse(app, argc, argv, [&] { checkTogether(options); });
    if (exitCode) {
        return {std::nullopt, *exitCode};
    }
    for (const std::string& host : options.hosts) {
        options.choice.hosts.insert(keptName(host));
    }
    if (options.files.empty()) {
        options.files.emplace_back(Input::standard);
    }
    return {options, exitDone};
}

} // namespace report
