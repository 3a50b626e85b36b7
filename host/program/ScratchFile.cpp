#include "host/program/ScratchFile.h"

#include "host/io/AlignedBuffer.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace {

constexpr std::size_t fillBytes = std::size_t{1} << 20U;

[[noreturn]] void fail(const std::string& what, const std::string& folder, int error,
                       const std::string& expected) {
    throw std::runtime_error(what + " in '" + folder + "': " +
                             std::generic_category().message(error) + " (" + expected + ")");
}

std::string roomFor(u64 size) {
    return "expected room for " + std::to_string(size) + " bytes, see --size";
}

} // namespace

ScratchFile::ScratchFile(const std::string& folder, u64 size, const Progress& progress,
                         u64 blockSize)
    : m_folder(folder) {
    create();
    reserve(size);
    fill(size, progress, blockSize);
}

bool ScratchFile::isInMemory() const {
    struct statfs fileSystem {};
    return fstatfs(descriptor(), &fileSystem) == 0 &&
           (fileSystem.f_type == TMPFS_MAGIC || fileSystem.f_type == RAMFS_MAGIC);
}

// A line of mountinfo: "36 35 98:0 /root /mount options [tag...] - type device options".
FileSystem ScratchFile::fileSystem() const {
    struct statx status {};
    const bool isKnown = ::statx(descriptor(), "", AT_EMPTY_PATH, STATX_MNT_ID, &status) == 0 &&
                         (status.stx_mask & STATX_MNT_ID) != 0;
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; isKnown && std::getline(mounts, line);) {
        const std::size_t dash = line.find(" - ");
        if (dash != std::string::npos && std::stoull(line) == status.stx_mnt_id) {
            FileSystem fileSystem;
            std::istringstream(line.substr(dash + 3)) >> fileSystem.type >> fileSystem.device;
            return fileSystem;
        }
    }
    return {"unknown", "unknown"};
}

void ScratchFile::checkBlockSize(u64 blockSize) const {
    const AlignedBuffer buffer(blockSize);
    if (::pread(descriptor(), buffer.data(), buffer.size(), 0) < 0) {
        fail("cannot read " + std::to_string(blockSize) + " bytes", m_folder, errno,
             "expected a multiple of the disk's block size, see --block-size");
    }
}

// A file that never has a name, where the file system can do that; direct, where it can do that.
void ScratchFile::create() {
    if (!openUnnamed(O_DIRECT) && !openNamed(O_DIRECT)) {
        m_isDirect = false;
        if (!openUnnamed(0) && !openNamed(0)) {
            fail("cannot create a scratch file", m_folder, errno,
                 "expected a folder that can be written to, see --path");
        }
    }
}

bool ScratchFile::openUnnamed(int flags) {
    m_file = FileDescriptor(::open(m_folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC | flags, 0600));
    return static_cast<bool>(m_file);
}

bool ScratchFile::openNamed(int flags) {
    std::string name = m_folder + "/analytics-host.XXXXXX";
    m_file = FileDescriptor(::mkostemp(name.data(), O_CLOEXEC | flags));
    const int error = errno;
    // A file system that refuses direct I/O may have created the file all the same.
    if (::unlink(name.c_str()) != 0 && ::access(name.c_str(), F_OK) == 0) {
        fail("cannot remove the name of the scratch file " + name, m_folder, errno,
             "expected a folder in which files can be removed, see --path");
    }
    errno = error;
    return static_cast<bool>(m_file);
}

// Some file systems cannot reserve space. Then fill() finds out whether there is room.
void ScratchFile::reserve(u64 size) const {
    while (::fallocate(descriptor(), 0, 0, static_cast<off_t>(size)) != 0) {
        if (errno == EOPNOTSUPP || errno == ENOSYS) {
            return;
        }
        if (errno != EINTR) {
            fail("cannot reserve the scratch file", m_folder, errno, roomFor(size));
        }
    }
}

// Fills every block: the kernel answers reads of unwritten blocks without reading the disk. Tries
// the block size early, as soon as there is something to read.
void ScratchFile::fill(u64 size, const Progress& progress, u64 blockSize) const {
    const AlignedBuffer buffer(fillBytes);
    std::memset(buffer.data(), 0xa5, buffer.size());
    for (u64 offset = 0; offset < size && (!progress || progress(offset));) {
        const u64 length = std::min<u64>(buffer.size(), size - offset);
        const ssize_t written =
            ::pwrite(descriptor(), buffer.data(), length, static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            fail("cannot fill the scratch file", m_folder, written < 0 ? errno : ENOSPC,
                 roomFor(size));
        }
        if (offset == 0) {
            checkBlockSize(blockSize);
        }
        offset += static_cast<u64>(written);
    }
}
