#pragma once

#include "tests/support/Files.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

// Programs that a test runs beside itself.

// Runs a shell's command, its output in a file, until its destructor kills it; should this process
// end first, the kernel does. Made and destroyed by the main thread.
class Process {
public:
    Process(const std::string& command, std::string outputPath)
        : m_outputPath(std::move(outputPath)) {
        const std::string script = "exec " + command + " >" + m_outputPath + " 2>&1";
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close_range(STDERR_FILENO + 1, ~0U, 0); // what the test holds open
            execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Process() { signalAndWait(SIGKILL); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Its exit code, once it has ended by itself.
    int wait() { return signalAndWait(0); }
    std::string output() const { return readFile(m_outputPath); }

private:
    int signalAndWait(int signal) {
        int status = -1;
        if (m_pid > 0) {
            kill(m_pid, signal);
            waitpid(std::exchange(m_pid, 0), &status, 0);
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    const std::string m_outputPath;
    pid_t m_pid = 0;
};

// Whether the condition came true within 20 s. For what another program does, which tells
// nobody when it is done.
inline bool waitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool isTrue = condition();
    while (!isTrue && std::chrono::steady_clock::now() < end) {
        poll(nullptr, 0, 5);
        isTrue = condition();
    }
    return isTrue;
}
