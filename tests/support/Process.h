#pragma once

#include "host/services/FileDescriptor.h"
#include "tests/support/Test.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

// Programs that a test runs beside itself.

// Runs a program, its output in a file, until its destructor kills it; should this process end
// first, the kernel does. Made and destroyed by the main thread.
class Process {
public:
    Process(std::vector<std::string> command, std::string outputPath)
        : m_outputPath(std::move(outputPath)), m_pid(fork()) {
        if (m_pid == 0) {
            run(std::move(command));
        }
    }
    ~Process() { kill(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void kill() { signalAndWait(SIGKILL); }
    // Its exit code, once it has ended by itself.
    int wait() { return signalAndWait(0); }

    std::string output() const {
        std::ifstream file(m_outputPath);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    [[noreturn]] void run(std::vector<std::string> command) const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int output = open(m_outputPath.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        close_range(STDERR_FILENO + 1, ~0U, 0); // what the test holds open
        std::vector<char*> arguments;
        for (std::string& part : command) {
            arguments.push_back(part.data());
        }
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    int signalAndWait(int signal) {
        if (m_pid > 0) {
            ::kill(m_pid, signal);
            waitpid(std::exchange(m_pid, 0), &m_status, 0);
        }
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
    }

    const std::string m_outputPath;
    pid_t m_pid;
    int m_status = 0;
};

inline sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Ports of the loopback interface that nobody listens at.
inline std::vector<int> freePorts(std::size_t count) {
    std::vector<FileDescriptor> sockets; // held together, so that no port is given twice
    std::vector<int> ports;
    while (ports.size() < count) {
        sockets.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = loopback(0);
        socklen_t size = sizeof(address);
        if (bind(sockets.back().get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            getsockname(sockets.back().get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw std::runtime_error("no free port");
        }
        ports.push_back(ntohs(address.sin_port));
    }
    return ports;
}

// The answer to a GET, headers included; empty if there is none.
inline std::string httpGet(int port, const std::string& path) {
    const FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
    std::string answer;
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        write(socket.get(), request.data(), request.size()) > 0) {
        char buffer[4096];
        for (ssize_t size = 0; (size = read(socket.get(), buffer, sizeof(buffer))) > 0;) {
            answer.append(buffer, static_cast<std::size_t>(size));
        }
    }
    return answer;
}

// Whether the condition came true within the limit. For what another program does, which tells
// nobody when it is done.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::seconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        poll(nullptr, 0, 5);
    }
    return true;
}
