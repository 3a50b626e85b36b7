#pragma once

#include <string>
#include <string_view>

// Where the reports go: standard output, or a file that is appended to. One thread at a time.
class OutputFile {
public:
    // An empty path means standard output. Throws std::runtime_error, with path and reason, if the
    // file cannot be opened.
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Writes all of the text at once, unbuffered. Throws std::runtime_error, with path and reason.
    void write(std::string_view text);

    bool isTerminal() const;

private:
    std::string m_name;
    int m_descriptor;
};
