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

// Where the file may not be read, the line stays torn.
void endTornLine(const std::string& path, int descriptor) {
    const off_t size = sizeOf(descriptor);
    if (size <= 0) {
        return;
    }
    const FileDescriptor reader(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char last = '\n';
    if (pread(reader.get(), &last, 1, size - 1) == 1 && last != '\n') {
        static_cast<void>(::write(descriptor, "\n", 1) == 1);
    }
}

// For writing alone: this process must not count as a reader of a FIFO.
FileDescriptor openToAppend(const std::string& path) {
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC;
    // With O_NONBLOCK, the open fails where it would wait for a reader.
    FileDescriptor file(::open(path.c_str(), flags | O_NONBLOCK, 0644));
    if (file) {
        fcntl(file.get(), F_SETFL, O_APPEND); // writes wait
    }
    return file;
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
    FileDescriptor file = openToAppend(m_path);
    if (!file) {
        const std::string reason =
            errno == ENXIO ? "nobody reads it" : std::generic_category().message(errno);
        throw std::runtime_error("cannot open " + m_name + ": " + reason +
                                 " (expected a file that can be appended to, see --output)");
    }
    endTornLine(m_path, file.get());
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

// The next line must not follow a part of this one.
void OutputFile::takeBack(std::string_view text, std::string_view unwritten) const {
    const off_t size = sizeOf(descriptor());
    const auto written = static_cast<off_t>(text.size() - unwritten.size());
    if (written == 0 || size < written) {
        return;
    }
    // Without O_APPEND, a write behind the new end would leave a hole.
    const bool isAtEnd = lseek(descriptor(), 0, SEEK_CUR) == size;
    if (ftruncate(descriptor(), size - written) == 0) {
        static_cast<void>(isAtEnd && lseek(descriptor(), size - written, SEEK_SET) >= 0);
    } else {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << m_name << " ends in a part of a line: " << std::generic_category().message(errno)
            << std::endl;
    }
}
