#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// refuse CALL ERRNO PROGRAM [ARGUMENT...]: becomes the program, to which the kernel answers one
// system call, given by its number, with this error.
int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    const auto call = static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10));
    const auto error = static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10));
    std::array<sock_filter, 4> rules{
        sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, call},
        sock_filter{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | (error & SECCOMP_RET_DATA)},
        sock_filter{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
    const sock_fprog filter{rules.size(), rules.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0) {
        execv(argv[3], argv + 3);
    }
    std::perror("refuse");
    return 1;
}
