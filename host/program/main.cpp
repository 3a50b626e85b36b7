#include "common/infra/Log.h"
#include "host/program/ExitCodes.h"
#include "host/program/Host.h"
#include "host/program/Options.h"
#include "host/program/Schedule.h"
#include "host/services/LogService.h"
#include "host/services/SpdlogSink.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>

namespace {

// The log sink. It lives until the process ends, because services log until their threads have
// ended.
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

// If a standard stream is closed, the next open() gets its number, and output would go into that
// file. So a read-only /dev/null takes the number, and writes fail.
void keepStandardStreamsApart() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) { // the lowest one free, so this is the one that is opened
            static_cast<void>(open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    keepStandardStreamsApart();
    const ParsedCommandLine commandLine = parseCommandLine(argc, argv);
    if (!commandLine.options) {
        return commandLine.exitCode;
    }
    // A reader that goes away and a file that may grow no further are errors of the write, to be
    // reported like any other.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    int exitCode = exitFailed;
    std::unique_ptr<SpdlogSink> log;
    try {
        log = startLog(*commandLine.options);
        exitCode = run(*commandLine.options);
    } catch (const std::bad_alloc&) {
        std::cerr << "analytics-host: not enough memory" << std::endl;
    } catch (const std::exception& error) {
        std::cerr << "analytics-host: " << error.what() << std::endl;
    }
    LogService::setSink(nullptr);
    return exitCode;
}
