#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <iterator>

// From here on the kernel answers one system call, given by its number, with this error: to the
// calling thread, and to the threads and programs that it starts. With `bits`, only where the
// argument of that index has one of them. With error 0 the call is not answered before all of them
// have ended. False if that cannot be had.
inline bool refuseCall(unsigned call, unsigned error, unsigned argument = 0, unsigned bits = 0) {
    const auto value = static_cast<unsigned>(offsetof(seccomp_data, args) + argument * 8);
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, value),
        BPF_JUMP(BPF_JMP | (bits == 0 ? BPF_JGE : BPF_JSET) | BPF_K, bits, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, error == 0 ? SECCOMP_RET_USER_NOTIF : SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter{std::size(rules), rules};
    const auto flags = error == 0 ? SECCOMP_FILTER_FLAG_NEW_LISTENER : 0UL;
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    const long listener = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &filter);
    // Nobody listens. A copy is not closed where a program is started.
    return error == 0 ? dup(static_cast<int>(listener)) >= 0 : listener == 0;
}
