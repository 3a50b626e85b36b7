#include "host/program/ScratchFile.h"

#include "host/io/AlignedBuffer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace {

constexpr std::size_t fillBytes = std::size_t{1} << 20U;

[[noreturn]] void fail(const std::string& what, const std::string& folder, int error,
                       const std::string& expected) {
    throw std::runtime_error(what + " in '" + folder + "': " +
                             std::generic_category().message(error) + " (" + expected + ")");
}

} // namespace

ScratchFile::ScratchFile(const std::string& folder, u64 size) {
    create(folder);
    try {
        fill(folder, size);
    } catch (...) {
        ::close(m_descriptor);
        throw;
    }
}

ScratchFile::~ScratchFile() {
    ::close(m_descriptor);
}

void ScratchFile::create(const std::string& folder) {
    std::string name = folder + "/analytics-host.XXXXXX";
    m_descriptor = ::mkostemp(name.data(), O_CLOEXEC | O_DIRECT);
    if (m_descriptor < 0 && errno == EINVAL) {
        m_isDirect = false;
        // A file system that refuses direct I/O may have created the file all the same.
        ::unlink(name.c_str());
        name = folder + "/analytics-host.XXXXXX";
        m_descriptor = ::mkostemp(name.data(), O_CLOEXEC);
    }
    if (m_descriptor < 0) {
        fail("cannot create a scratch file", folder, errno,
             "expected a folder that can be written to, see --path");
    }
    ::unlink(name.c_str());
}

void ScratchFile::fill(const std::string& folder, u64 size) const {
    const std::string expected = "expected room for " + std::to_string(size) + " bytes, see --size";
    if (const int error = ::posix_fallocate(m_descriptor, 0, static_cast<off_t>(size));
        error != 0) {
        fail("cannot reserve the scratch file", folder, error, expected);
    }
    // Blocks that were never written are answered without asking the disk.
    const AlignedBuffer buffer(fillBytes);
    std::memset(buffer.data(), 0xa5, buffer.size());
    for (u64 offset = 0; offset < size;) {
        const u64 length = std::min<u64>(buffer.size(), size - offset);
        const ssize_t written =
            ::pwrite(m_descriptor, buffer.data(), length, static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            fail("cannot fill the scratch file", folder, written < 0 ? errno : ENOSPC, expected);
        }
        offset += static_cast<u64>(written);
    }
}
