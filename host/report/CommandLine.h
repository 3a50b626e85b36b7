#pragma once

#include <functional>
#include <optional>

namespace CLI {
class App;
}

namespace report {

// Parses a program's command line, with a help that fits 80 columns. Then calls `checkTogether`,
// which checks options against each other and throws CLI::ValidationError. Returns nothing if all
// is well, else the code with which the process has to exit: 0 after --help and --version, 1 if
// their text could not be written, 2 after an error message of one line.
std::optional<int> parse(CLI::App& app, int argc, const char* const* argv,
                         const std::function<void()>& checkTogether);

} // namespace report
