#pragma once

#include "host/report/Options.h"

namespace report {

// Reads the files and shows their figures. Returns the exit code. Throws std::runtime_error if
// nothing can be read or written; the message names what, where and why.
int run(const Options& options);

} // namespace report
