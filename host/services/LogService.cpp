#include "host/services/LogService.h"

#include "host/services/SpdlogSink.h"

#include <array>
#include <atomic>
#include <cstdlib>

namespace {

std::atomic<ILogSink*> installedSink{nullptr};
std::atomic<int> leastSevereLevel{InfoLevel};
std::atomic<bool> abortsOnAssert{false};
std::atomic<u64> assertions{0};
std::atomic<u64> dropped{0};

// Never destroyed, because destructors at exit may still log.
ILogSink& standardError() {
    static ILogSink* sink = SpdlogSink::toStandardError().release();
    return *sink;
}

void countAssertion(LogLevel level) {
    if (level == AssertLevel) {
        assertions.fetch_add(1, std::memory_order_relaxed);
        if (abortsOnAssert.load(std::memory_order_relaxed)) {
            std::abort();
        }
    }
}

} // namespace

ILogSink* LogService::setSink(ILogSink* sink) noexcept {
    return installedSink.exchange(sink, std::memory_order_acq_rel);
}

void LogService::setLevel(LogLevel level) noexcept {
    leastSevereLevel.store(level, std::memory_order_relaxed);
}

bool LogService::isEnabled(LogLevel level) noexcept {
    const int severity = level == LongTermInfoLevel ? InfoLevel : level;
    return severity <= leastSevereLevel.load(std::memory_order_relaxed);
}

void LogService::setAbortOnAssert(bool abortOnAssert) noexcept {
    abortsOnAssert.store(abortOnAssert, std::memory_order_relaxed);
}

u64 LogService::assertionCount() noexcept {
    return assertions.load(std::memory_order_relaxed);
}

u64 LogService::droppedCount() noexcept {
    return dropped.load(std::memory_order_relaxed);
}

void LogService::write(const LogRecord& record) noexcept {
    try {
        ILogSink* sink = installedSink.load(std::memory_order_acquire);
        (sink != nullptr ? *sink : standardError()).write(record);
    } catch (...) {
        drop(record.level);
        return;
    }
    countAssertion(record.level);
}

void LogService::drop(LogLevel level) noexcept {
    dropped.fetch_add(1, std::memory_order_relaxed);
    countAssertion(level);
}

const char* toString(LogLevel level) {
    constexpr std::array names{"assert", "fatal", "error", "warn",
                               "info",   "debug", "ctr",   "long-term-info"};
    static_assert(names.size() == LevelsCount);
    return level < LevelsCount ? names[level] : "unknown";
}

const char* toString(LogModule module) {
    constexpr std::array names{"invalid", "kel", "qem", "common"};
    static_assert(names.size() == LogModulesCount);
    return names[module < LogModulesCount ? module : LogModuleInvalid];
}
