#include "benchmarks/Machine.h"

#include "benchmarks/Paired.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <fstream>

namespace {

std::string processorName() {
    std::ifstream in("/proc/cpuinfo");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("model name", 0) == 0) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown processor";
}

} // namespace

std::string describeMachine() {
    utsname kernel{};
    uname(&kernel);
    double load = 0;
    getloadavg(&load, 1);
    return fmt::format("{} x {}, {} {}, load average {:.1f}", processorCount(), processorName(),
                       kernel.sysname, kernel.release, load);
}
