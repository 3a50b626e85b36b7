#include "host/forwarding/Identity.h"

#include "common/infra/Defs.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <random>
#include <string_view>

namespace {

u64 hash(std::string_view text) {
    u64 value = 0xcbf29ce484222325;
    for (const char byte : text) {
        value = (value ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    }
    return value;
}

std::string hostName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

} // namespace

std::string deriveHostId(const std::string& machineIdFile) {
    std::string machine;
    std::getline(std::ifstream(machineIdFile), machine);
    return fmt::format("{:016x}",
                       hash("analytics-host:" + (machine.empty() ? hostName() : machine)));
}

Origin makeOrigin(const std::string& hostId) {
    std::random_device random;
    return {hostId.empty() ? deriveHostId() : hostId,
            fmt::format("{:08x}{:08x}", random(), random())};
}

std::string programName() {
    return program_invocation_short_name;
}
