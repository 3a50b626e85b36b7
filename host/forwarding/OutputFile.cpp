#include "host/forwarding/OutputFile.h"

#include "common/infra/Log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

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

void endTornLine(int descriptor) {
    const off_t size = sizeOf(descriptor);
    char last = '\n';
    if (size > 0 && pread(descriptor, &last, 1, size - 1) == 1 && last != '\n') {
        static_cast<void>(::write(descriptor, "\n", 1) == 1);
    }
}

} // namespace

OutputFile::OutputFile(const std::string& path)
    : m_path(path), m_name(path.empty() ? "standard output" : "'" + path + "'") {
    if (!m_path.empty()) {
        m_file = open();
    }
}

void OutputFile::write(std::string_view text) {
    if (m_mustReopen.exchange(false)) {
        reopen();
    }
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t written = ::write(descriptor(), rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (!canRetry(descriptor())) {
            const int error = errno;
            takeBack(text, rest);
            throw std::runtime_error("cannot write to " + m_name + ": " +
                                     std::generic_category().message(error));
        }
    }
}

bool OutputFile::isTerminal() const {
    return ::isatty(descriptor()) == 1;
}

FileDescriptor OutputFile::open() const {
    FileDescriptor file(::open(m_path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!file && (errno == EACCES || errno == EPERM)) { // one may write, but not read
        file = FileDescriptor(::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    }
    if (!file) {
        throw std::runtime_error("cannot open " + m_name + ": " +
                                 std::generic_category().message(errno) +
                                 " (expected a file that can be appended to, see --output)");
    }
    endTornLine(file.get());
    return file;
}

void OutputFile::reopen() {
    if (m_path.empty()) {
        return;
    }
    try {
        m_file = open();
    } catch (const std::exception& error) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << error.what() << "; the file that was open stays in use" << std::endl;
    }
}

// What comes next must not be appended to half a line.
void OutputFile::takeBack(std::string_view text, std::string_view unwritten) const {
    const off_t size = sizeOf(descriptor());
    const auto written = static_cast<off_t>(text.size() - unwritten.size());
    if (size >= written && written > 0 && ftruncate(descriptor(), size - written) != 0) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << m_name << " ends in a part of a line: " << std::generic_category().message(errno)
            << std::endl;
    }
}
