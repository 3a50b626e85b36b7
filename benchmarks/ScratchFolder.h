#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

// A new folder, which goes with its benchmark. Throws std::system_error.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::filesystem::path& parent) {
        std::string name = parent / "analytics-bench-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        m_path = name;
    }

    ~ScratchFolder() {
        std::error_code ignored; // what is left is a temporary file
        std::filesystem::remove_all(m_path, ignored);
    }

    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};
