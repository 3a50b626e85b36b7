#include "common/infra/Log.h"
#include "host/program/ExitCodes.h"
#include "host/program/Host.h"
#include "host/program/Options.h"
#include "host/program/Schedule.h"
#include "host/services/LogService.h"
#include "host/services/SpdlogSink.h"

#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>

namespace {

// The log's end for the life of the process: services write to it until their threads are gone.
std::unique_ptr<SpdlogSink> startLog(const Options& options) {
    LogService::setLevel(options.logLevel);
    LogService::setAbortOnAssert(options.abortOnAssert);
    auto sink = options.logFile.empty() ? SpdlogSink::toStandardError()
                                        : SpdlogSink::toFile(options.logFile);
    LogService::setSink(sink.get());
    return sink;
}

int run(const Options& options) {
    if (options.showSchedule != 0) {
        loadTweaks(options);
        showSchedule(options, std::time(nullptr), std::cout);
        if (!std::cout.flush()) {
            throw std::runtime_error("cannot write the schedule to standard output");
        }
        return exitDone;
    }
    return Host(options).run();
}

} // namespace

int main(int argc, char** argv) {
    const ParsedCommandLine commandLine = parseCommandLine(argc, argv);
    if (!commandLine.options) {
        return commandLine.exitCode;
    }
    // A reader that goes away is an error of the write, to be reported like any other.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    int exitCode = exitFailed;
    std::unique_ptr<SpdlogSink> log;
    try {
        log = startLog(*commandLine.options);
        exitCode = run(*commandLine.options);
    } catch (const std::exception& error) {
        std::cerr << "analytics-host: " << error.what() << std::endl;
    }
    LogService::setSink(nullptr);
    return exitCode;
}
