#include "tests/support/RefuseCall.h"

#include <cstdio>
#include <cstdlib>

// refuse CALL ERRNO ARGUMENT BITS PROGRAM [ARGUMENT...]: becomes the program, under that refusal.
int main(int argc, char** argv) {
    const auto number = [argv](int index) {
        return static_cast<unsigned>(std::strtoul(argv[index], nullptr, 10));
    };
    if (argc >= 6 && refuseCall(number(1), number(2), number(3), number(4))) {
        execvp(argv[5], argv + 5);
    }
    std::perror("refuse");
    return 2;
}
