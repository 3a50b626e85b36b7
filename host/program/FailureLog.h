#pragma once

#include "common/infra/Defs.h"

#include <string>

// Keeps a log readable while a disk fails I/Os, however many: a line when failures begin, at most
// one a second with their number while they last, and one when a second has passed without any.
// Times are nanoseconds of the monotonic clock. Not synchronised.
class FailureLog {
public:
    // `what` describes the failed I/O.
    void failed(const std::string& what, u64 nowNs);
    void succeeded(u64 nowNs);

private:
    bool m_isFailing = false;
    u64 m_lastFailureNs = 0;
    u64 m_lastLineNs = 0;
    u64 m_unreported = 0; // since the last line
    u64 m_inAll = 0;      // since failures began
};
