#pragma once

#include "host/report/Fleet.h"

#include <optional>
#include <string>
#include <vector>

namespace report {

struct Options {
    std::vector<std::string> files; // at least one
    std::vector<std::string> hosts;
    Choice choice; // these hosts among it
    bool isJson = false;
    bool mustFollow = false;
    std::string html; // empty: none
};

struct ParsedCommandLine {
    // Nothing: the process has to exit with `exitCode`; the message was written.
    std::optional<Options> options;
    int exitCode = 0;
};

ParsedCommandLine parseCommandLine(int argc, const char* const* argv);

} // namespace report
