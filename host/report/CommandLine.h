#pragma once

#include <functional>
#include <optional>

namespace CLI {
class App;
}

namespace report {

// Parses a program's command line, with a help that fits 80 columns, and has what no single option
// can tell checked, by a function that throws CLI::ValidationError. Answers nothing, or the exit
// code of a process that has said all it has to say: 0 after --help and --version, 2 after one line
// on standard error that names what is wrong and what was expected.
std::optional<int> parse(CLI::App& app, int argc, const char* const* argv,
                         const std::function<void()>& checkTogether);

} // namespace report
