#pragma once

#include "host/report/Options.h"

namespace report {

// Reads, and shows what was read. Answers the exit code. Throws std::runtime_error, with what,
// where and why, if there is nothing to show.
int run(const Options& options);

} // namespace report
