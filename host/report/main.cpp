#include "host/report/ExitCodes.h"
#include "host/report/Options.h"
#include "host/report/Program.h"

#include <csignal>
#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    const report::ParsedCommandLine commandLine = report::parseCommandLine(argc, argv);
    if (!commandLine.options) {
        return commandLine.exitCode;
    }
    // A reader that goes away is an error of the write, to be reported like any other.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    try {
        return report::run(*commandLine.options);
    } catch (const std::exception& error) {
        std::cerr << "analytics-report: " << error.what() << std::endl;
    }
    return report::exitFailed;
}
