#pragma once

#include "tests/support/Test.h"

#include <sys/resource.h>

inline std::string readFile(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// How many files and folders a folder holds: of this process the open descriptors, in
// "/proc/self/fd", or the threads, in "/proc/self/task".
inline std::ptrdiff_t entriesOf(const std::string& folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

// A folder that goes with its test. It is new: a killed test leaves its own behind.
class TempFolder {
public:
    TempFolder() { EXPECT_NE(mkdtemp(m_path.data()), nullptr) << m_path; }
    ~TempFolder() { std::filesystem::remove_all(m_path); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    // Returns the file's path.
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(*this / name) << text;
        return *this / name;
    }
    std::string read(const std::string& name) const { return readFile(*this / name); }

private:
    std::string m_path = testing::TempDir() + "tests.XXXXXX";
};

// Files of this process are not written beyond so many bytes, as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        static_cast<void>(std::signal(SIGXFSZ, SIG_IGN)); // it would end the process
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &m_before); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_before{};
};

// What the action throws says; "no error" if it does not.
inline std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

inline testing::AssertionResult holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "no '" << part << "' in: " << text;
}
