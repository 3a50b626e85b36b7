#pragma once

#include "host/report/Fleet.h"

#include <optional>
#include <string>
#include <vector>

namespace report {

struct Options {
    std::vector<std::string> files; // empty: standard input
    std::vector<std::string> hosts;
    Choice choice; // these hosts among it
    bool isJson = false;
    bool mustFollow = false;
    std::string html; // empty: none
};

struct ParsedCommandLine {
    std::optional<Options>
        options; // none: `exitCode` is the answer, and what there is to say is said
    int exitCode = 0;
};

ParsedCommandLine parseCommandLine(int argc, const char* const* argv);

} // namespace report
