#pragma once

#include "common/infra/Defs.h"

#include <string>

// A file of the given size, filled with data, for the data path to read and write. It has no name:
// it is gone with the process, however that ends.
class ScratchFile {
public:
    // Throws std::runtime_error, with what failed where and why, if the folder cannot be written to
    // or has not enough room.
    ScratchFile(const std::string& folder, u64 size);
    ~ScratchFile();
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    int descriptor() const { return m_descriptor; }
    // Whether I/O bypasses the page cache; not every file system offers that.
    bool isDirect() const { return m_isDirect; }

private:
    void create(const std::string& folder);
    void fill(const std::string& folder, u64 size) const;

    int m_descriptor = -1;
    bool m_isDirect = true;
};
