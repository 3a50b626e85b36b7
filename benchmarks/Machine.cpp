#include "benchmarks/Machine.h"

#include "benchmarks/Paired.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <fstream>

namespace {

// Its name, and whether it is a virtual machine's.
std::string processorName() {
    std::ifstream in("/proc/cpuinfo");
    std::string name = "unknown processor";
    for (std::string line; std::getline(in, line) && !line.empty();) { // of the first one
        if (line.rfind("model name", 0) == 0) {
            name = line.substr(line.find(':') + 2);
        } else if (line.find(" hypervisor") != std::string::npos) {
            name += ", virtual";
        }
    }
    return name;
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
