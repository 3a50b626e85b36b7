#include "tests/support/RefuseCall.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

// refuse CALL ERRNO PROGRAM [ARGUMENT...]: becomes the program, under that refusal.
int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    const auto call = static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10));
    const auto error = static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10));
    if (refuseCall(call, error)) {
        execv(argv[3], argv + 3);
    }
    std::perror("refuse");
    return 1;
}
