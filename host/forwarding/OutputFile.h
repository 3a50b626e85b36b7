#pragma once

#include "common/infra/Export.h"
#include "host/services/FileDescriptor.h"

#include <atomic>
#include <string>
#include <string_view>

// Where the reports go: standard output, or a file that is appended to. Used by one thread at a
// time, but for requestReopen().
class ANALYTICS_EXPORT OutputFile {
public:
    // An empty path means standard output. Ends a line that a killed process left unfinished in the
    // file. Throws std::runtime_error, with path and reason, if the file cannot be opened, or is a
    // FIFO that nobody reads.
    explicit OutputFile(const std::string& path);

    // Writes all of the text at once, unbuffered; waits where the output is full but non-blocking.
    // Throws std::runtime_error, with path and reason; a part that was written to a file is then
    // taken back.
    void write(std::string_view text);

    // The file is opened anew before the next write, for one who has moved it away. It is kept,
    // and the failure logged, if that fails. Any thread. Standard output stays as it is.
    void requestReopen() { m_mustReopen = true; }

    bool isTerminal() const;

private:
    int descriptor() const { return m_file ? m_file.get() : STDOUT_FILENO; }
    FileDescriptor open() const;
    void reopen();
    void takeBack(std::string_view text, std::string_view unwritten) const;

    const std::string m_path;
    const std::string m_name;
    FileDescriptor m_file; // empty: standard output
    std::atomic<bool> m_mustReopen{false};
};
