#pragma once

namespace report {

constexpr int exitDone = 0;
constexpr int exitFailed = 1; // something could not be read or written
constexpr int exitUsage = 2;  // the command line is wrong

} // namespace report
