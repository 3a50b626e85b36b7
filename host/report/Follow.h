#pragma once

#include "host/report/Options.h"

namespace report {

// Reads the files on and on and shows the summary again when records came in, at most four times a
// second: in place on a terminal, else one after the other. A file that is replaced or cut is read
// from its beginning; a missing file is waited for. Ends with SIGINT or SIGTERM, and at the end of
// standard input if there is no file. Returns the exit code. Throws std::runtime_error.
int follow(const Options& options);

} // namespace report
