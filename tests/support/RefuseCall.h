#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>

// From here on the kernel answers one system call, given by its number, with this error: to the
// calling thread, and to the threads and programs that it starts. With `bits`, only where the
// argument of that index has one of them. With error 0 the call is not answered before all of them
// have ended. False if that cannot be had.
inline bool refuseCall(std::uint32_t call, std::uint32_t error, std::uint32_t argument = 0,
                       std::uint32_t bits = 0) {
    const auto value =
        static_cast<std::uint32_t>(offsetof(seccomp_data, args) + argument * sizeof(std::uint64_t));
    const std::uint16_t matches = bits == 0 ? BPF_JGE : BPF_JSET;
    std::array<sock_filter, 6> rules{
        sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 3, call},
        sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, value},
        sock_filter{static_cast<std::uint16_t>(BPF_JMP | matches | BPF_K), 0, 1, bits},
        sock_filter{BPF_RET | BPF_K, 0, 0,
                    error == 0 ? SECCOMP_RET_USER_NOTIF
                               : SECCOMP_RET_ERRNO | (error & SECCOMP_RET_DATA)},
        sock_filter{BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
    const sock_fprog filter{rules.size(), rules.data()};
    const auto flags = error == 0 ? SECCOMP_FILTER_FLAG_NEW_LISTENER : 0UL;
    const long listener = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0
                              ? -1
                              : syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &filter);
    // Nobody listens. A copy is not closed where a program is started.
    return error == 0 ? dup(static_cast<int>(listener)) >= 0 : listener == 0;
}
