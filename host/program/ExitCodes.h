#pragma once

constexpr int exitDone = 0;
constexpr int exitFailed = 1; // something failed at run time
constexpr int exitUsage = 2;  // the command line is wrong
constexpr int exitLost = 3;   // ran to the end, but a report was lost or memory leaked
