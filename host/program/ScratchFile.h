#pragma once

#include "common/infra/Defs.h"
#include "host/services/FileDescriptor.h"

#include <functional>
#include <string>

// What a file is kept on, by the names that the kernel has for them.
struct FileSystem {
    std::string type;
    std::string device;
};

// A file of the given size, filled with data, for the load generator to read and write. It has no
// name: it is gone with the process, however that ends.
class ScratchFile {
public:
    // Told how many bytes are filled; false gives up, and the file stays shorter.
    using Progress = std::function<bool(u64 filledBytes)>;

    // Throws std::runtime_error, with what failed where and why, if the folder cannot be written to
    // or has not enough room, or if I/Os of `blockSize` bytes cannot be made.
    ScratchFile(const std::string& folder, u64 size, const Progress& progress = nullptr,
                u64 blockSize = 4096);

    int descriptor() const { return m_file.get(); }
    // Whether I/O bypasses the page cache; not every file system offers that.
    bool isDirect() const { return m_isDirect; }
    // Whether the file system keeps its files in memory, such as tmpfs: there is no disk behind it.
    bool isInMemory() const;
    // "unknown" twice where the kernel does not tell.
    FileSystem fileSystem() const;

private:
    void create();
    bool openUnnamed(int flags);
    bool openNamed(int flags);
    void reserve(u64 size) const;
    void fill(u64 size, const Progress& progress, u64 blockSize) const;
    void checkBlockSize(u64 blockSize) const;

    const std::string m_folder;
    FileDescriptor m_file;
    bool m_isDirect = true;
};
