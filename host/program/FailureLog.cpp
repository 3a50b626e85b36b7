#include "host/program/FailureLog.h"

#include "common/infra/Log.h"
#include "host/services/Clock.h"

#include <ostream>
#include <system_error>

std::ostream& operator<<(std::ostream& out, const FailedIo& io) {
    out << (io.isRead ? "read" : "write") << " failed at offset=" << io.offset << ": ";
    return io.result < 0 ? out << std::generic_category().message(-io.result)
                         : out << "moved " << io.result << " bytes of " << io.length;
}

void FailureLog::failed(const FailedIo& io, u64 nowNs) noexcept {
    m_lastFailureNs = nowNs;
    ++m_unreported;
    m_inAll = m_isFailing ? m_inAll + 1 : 1;
    if (!m_isFailing) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3) << io << std::endl;
    } else if (nowNs - m_lastLineNs >= nsPerSecond) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "further I/Os failed=" << m_unreported << ", the last: " << io << std::endl;
    } else {
        return;
    }
    m_isFailing = true;
    m_lastLineNs = nowNs;
    m_unreported = 0;
}

void FailureLog::succeeded(u64 nowNs) noexcept {
    if (m_isFailing && nowNs - m_lastFailureNs >= nsPerSecond) {
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "no I/O has failed for a second; failed in all=" << m_inAll << std::endl;
        m_isFailing = false;
        m_unreported = 0;
    }
}
