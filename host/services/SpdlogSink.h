#pragma once

#include "host/services/LogService.h"

#include <atomic>
#include <memory>
#include <string>

namespace spdlog {
class logger;
}

// The log on spdlog: one line for each line of text, with time, level, module, thread and function.
// The first failure to write is also told on standard error.
class ANALYTICS_EXPORT SpdlogSink : public ILogSink {
public:
    // Colours on a terminal, plain elsewhere.
    static std::unique_ptr<SpdlogSink> toStandardError();
    // Appends to the file, and rotates it at 10 MiB, keeping three older ones. Throws
    // std::runtime_error, with the reason, if the file cannot be opened.
    static std::unique_ptr<SpdlogSink> toFile(const std::string& path);

    ~SpdlogSink() override;

    // Throws std::runtime_error, with the reason, if the line cannot be written.
    void write(const LogRecord& record) override;

private:
    explicit SpdlogSink(std::shared_ptr<spdlog::logger> logger);

    void fail(const std::string& reason);

    std::shared_ptr<spdlog::logger> m_logger;
    std::atomic<bool> m_hasFailed{false};
};
