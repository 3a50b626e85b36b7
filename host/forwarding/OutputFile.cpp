#include "host/forwarding/OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

OutputFile::OutputFile(const std::string& path)
    : m_name(path.empty() ? "standard output" : "'" + path + "'"),
      m_descriptor(path.empty()
                       ? STDOUT_FILENO
                       : ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644)) {
    if (m_descriptor < 0) {
        throw std::runtime_error("cannot open " + m_name + ": " +
                                 std::generic_category().message(errno) +
                                 " (expected a file that can be appended to, see --output)");
    }
}

OutputFile::~OutputFile() {
    if (m_descriptor != STDOUT_FILENO) {
        ::close(m_descriptor);
    }
}

void OutputFile::write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(m_descriptor, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            throw std::runtime_error("cannot write to " + m_name + ": " +
                                     std::generic_category().message(errno));
        }
    }
}

bool OutputFile::isTerminal() const {
    return ::isatty(m_descriptor) == 1;
}
