#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Log.h"

#include <string_view>

// What a LogItem hands over at a flush. Valid during the call only.
struct ANALYTICS_TAG LogRecord {
    LogModule module;
    LogLevel level;
    const char* function; // lives as long as the process
    int detail;
    std::string_view text; // as streamed, line ends included
};

// Where log lines go. write() may be called from any thread, concurrently. It throws if it cannot
// write the line: the logging service then drops the line and counts it.
class ANALYTICS_EXPORT ILogSink {
public:
    virtual ~ILogSink() = default;
    virtual void write(const LogRecord& record) = 0;
};

// The logging service behind LogItem. Usable at any time, also before main() and after it. Every
// operation may be called from any thread, and none throws.
class ANALYTICS_EXPORT LogService {
public:
    LogService() = delete;

    // Installs a sink and returns the one before it; null installs standard error. The sink stays
    // the caller's, and must outlive its use by lines that are being written while it is replaced.
    static ILogSink* setSink(ILogSink* sink) noexcept;

    // The least severe level that is written: AssertLevel to CtrLevel. Assertion lines always are,
    // and LongTermInfoLevel counts as InfoLevel. InfoLevel at start.
    static void setLevel(LogLevel level) noexcept;
    static bool isEnabled(LogLevel level) noexcept;

    // Makes an assertion line end the process (std::abort), once it is written or dropped. Off at
    // start.
    static void setAbortOnAssert(bool abortOnAssert) noexcept;
    // Assertion lines so far, with those that were dropped.
    static u64 assertionCount() noexcept;
    // Lines that were dropped so far, because their sink or memory failed.
    static u64 droppedCount() noexcept;

    static void write(const LogRecord& record) noexcept;
    // Called in place of write() for a line whose text could not be made.
    static void drop(LogLevel level) noexcept;
};

// "assert", "fatal", "error", "warn", "info", "debug", "ctr", "long-term-info".
ANALYTICS_EXPORT const char* toString(LogLevel level);
// "invalid", "kel", "qem", "common".
ANALYTICS_EXPORT const char* toString(LogModule module);
