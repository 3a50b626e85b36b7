#pragma once

#include "host/report/Options.h"

namespace report {

// Shows the summary anew as records come in, at most four times a second: on a terminal in place,
// else one behind the other. A file that is replaced or begun anew is read from its begin; one
// that is not there yet is waited for. Ends with SIGINT or SIGTERM, or when standard input, if that
// is all, ends. Answers the exit code. Throws std::runtime_error.
int follow(const Options& options);

} // namespace report
