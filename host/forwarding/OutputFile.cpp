#include "host/forwarding/OutputFile.h"

#include "common/infra/Log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

// The size of a regular file, -1 of all else.
off_t sizeOf(int descriptor) {
    struct stat status {};
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

// Whether a write that failed can be tried again: now, or once a full pipe has been read from.
bool canRetry(int descriptor) {
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
        return errno == EINTR;
    }
    pollfd output{descriptor, POLLOUT, 0};
    return poll(&output, 1, -1) >= 0 || errno == EINTR;
}

} // namespace

OutputFile::OutputFile(const std::string& path)
    : m_path(path), m_name(path.empty() ? "standard output" : "'" + path + "'") {
    open();
}

OutputFile::~OutputFile() {
    if (m_descriptor != STDOUT_FILENO) {
        ::close(m_descriptor);
    }
}

void OutputFile::write(std::string_view text) {
    if (m_mustReopen.exchange(false)) {
        reopen();
    }
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t written = ::write(m_descriptor, rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (!canRetry(m_descriptor)) {
            const int error = errno;
            takeBack(text, rest);
            throw std::runtime_error("cannot write to " + m_name + ": " +
                                     std::generic_category().message(error));
        }
    }
}

bool OutputFile::isTerminal() const {
    return ::isatty(m_descriptor) == 1;
}

void OutputFile::open() {
    m_descriptor = m_path.empty()
                       ? STDOUT_FILENO
                       : ::open(m_path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (m_descriptor < 0 && (errno == EACCES || errno == EPERM)) { // one may write, but not read
        m_descriptor = ::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    }
    if (m_descriptor < 0) {
        throw std::runtime_error("cannot open " + m_name + ": " +
                                 std::generic_category().message(errno) +
                                 " (expected a file that can be appended to, see --output)");
    }
    if (!m_path.empty()) {
        endTornLine();
    }
}

void OutputFile::reopen() {
    const int before = m_descriptor;
    if (m_path.empty()) {
        return;
    }
    try {
        open();
        ::close(before);
    } catch (const std::exception& error) {
        m_descriptor = before;
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << error.what() << "; the file that was open stays in use" << std::endl;
    }
}

void OutputFile::endTornLine() const {
    const off_t size = sizeOf(m_descriptor);
    char last = '\n';
    if (size > 0 && pread(m_descriptor, &last, 1, size - 1) == 1 && last != '\n') {
        static_cast<void>(::write(m_descriptor, "\n", 1) == 1);
    }
}

// What comes next must not be appended to half a line.
void OutputFile::takeBack(std::string_view text, std::string_view unwritten) const {
    const off_t size = sizeOf(m_descriptor);
    const auto written = static_cast<off_t>(text.size() - unwritten.size());
    if (size >= written && written > 0 && ftruncate(m_descriptor, size - written) != 0) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << m_name << " ends in a part of a line: " << std::generic_category().message(errno)
            << std::endl;
    }
}
