#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments) {
    std::array<int, 2> pipeEnds{};
    m_stderr = memfd_create("stderr", MFD_CLOEXEC);
    if (m_stderr < 0 || pipe2(pipeEnds.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for " + program);
    }
    std::vector<std::string> texts = arguments;
    texts.insert(texts.begin(), program);
    std::vector<char*> argv;
    for (std::string& text : texts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        dup2(pipeEnds[1], STDOUT_FILENO);
        dup2(m_stderr, STDERR_FILENO);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(pipeEnds[1]);
    m_stdout = pipeEnds[0];
    if (m_pid < 0) {
        throw std::runtime_error("cannot fork for " + program);
    }
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_stdout);
    close(m_stderr);
}

std::string ChildProcess::readLine() {
    std::size_t end = 0;
    while ((end = m_output.find('\n', m_linesEnd)) == std::string::npos && readMore()) {
    }
    if (end == std::string::npos) {
        return {};
    }
    std::string line = m_output.substr(m_linesEnd, end - m_linesEnd);
    m_linesEnd = end + 1;
    return line;
}

void ChildProcess::signal(int number) const {
    kill(m_pid, number);
}

int ChildProcess::wait() {
    while (readMore()) {
    }
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string ChildProcess::errors() const {
    std::string text(static_cast<std::size_t>(lseek(m_stderr, 0, SEEK_END)), '\0');
    const ssize_t length = pread(m_stderr, text.data(), text.size(), 0);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
}

bool ChildProcess::readMore() {
    std::array<char, 4096> buffer{};
    const ssize_t length = read(m_stdout, buffer.data(), buffer.size());
    if (length > 0) {
        m_output.append(buffer.data(), static_cast<std::size_t>(length));
    }
    return length > 0;
}
