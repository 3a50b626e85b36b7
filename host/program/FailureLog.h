#pragma once

#include "common/infra/Defs.h"

#include <iosfwd>

// An I/O that failed: "read failed at offset=4096: Input/output error".
struct FailedIo {
    bool isRead;
    u64 offset;
    int result; // a negative errno, or the bytes that were moved
    u32 length;
};
std::ostream& operator<<(std::ostream& out, const FailedIo& io);

// Keeps a log readable while a disk fails I/Os, however many: a line when failures begin, at most
// one a second with their number while they last, and one when a second has passed without any.
// Times are nanoseconds of the monotonic clock. Nothing throws. Not synchronised.
class FailureLog {
public:
    void failed(const FailedIo& io, u64 nowNs) noexcept;
    void succeeded(u64 nowNs) noexcept;

private:
    bool m_isFailing = false;
    u64 m_lastFailureNs = 0;
    u64 m_lastLineNs = 0;
    u64 m_unreported = 0; // since the last line
    u64 m_inAll = 0;      // since failures began
};
