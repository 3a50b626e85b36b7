#include "host/services/SpdlogSink.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::size_t maxFileBytes = 10U << 20U;
constexpr std::size_t olderFiles = 3;

spdlog::level::level_enum spdlogLevel(LogLevel level) {
    switch (level) {
    case FatalLevel:
        return spdlog::level::critical;
    case AssertLevel:
    case ErrorLevel:
        return spdlog::level::err;
    case WarnLevel:
        return spdlog::level::warn;
    case DebugLevel:
        return spdlog::level::debug;
    case CtrLevel:
        return spdlog::level::trace;
    default:
        return spdlog::level::info;
    }
}

std::string_view withoutLineEnds(std::string_view text) {
    while (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    return text;
}

} // namespace

SpdlogSink::SpdlogSink(std::shared_ptr<spdlog::logger> logger) : m_logger(std::move(logger)) {
    // The logging service chooses which lines are written. Each is flushed, so that it survives a
    // process that is killed.
    m_logger->set_level(spdlog::level::trace);
    m_logger->flush_on(spdlog::level::trace);
    m_logger->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %^%-8l%$ %t %v");
    m_logger->set_error_handler([this](const std::string& reason) { fail(reason); });
}

SpdlogSink::~SpdlogSink() = default;

std::unique_ptr<SpdlogSink> SpdlogSink::toStandardError() {
    return std::unique_ptr<SpdlogSink>(new SpdlogSink(std::make_shared<spdlog::logger>(
        "stderr", std::make_shared<spdlog::sinks::stderr_color_sink_mt>())));
}

std::unique_ptr<SpdlogSink> SpdlogSink::toFile(const std::string& path) {
    // spdlog would create the folders of a mistyped path.
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty() && !std::filesystem::is_directory(folder)) {
        throw std::runtime_error("cannot log to '" + path + "': expected an existing folder '" +
                                 folder.native() + "'");
    }
    try {
        return std::unique_ptr<SpdlogSink>(new SpdlogSink(std::make_shared<spdlog::logger>(
            path, std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, maxFileBytes,
                                                                         olderFiles))));
    } catch (const spdlog::spdlog_ex& error) {
        throw std::runtime_error("cannot log to '" + path + "': " + error.what());
    }
}

void SpdlogSink::write(const LogRecord& record) {
    m_logger->log(spdlogLevel(record.level), "{} [{}] {}", toString(record.module), record.function,
                  withoutLineEnds(record.text));
}

void SpdlogSink::fail(const std::string& reason) {
    if (!m_hasFailed.exchange(true)) {
        static_cast<void>(std::fprintf(stderr, "cannot write the log: %s\n", reason.c_str()));
    }
    throw std::runtime_error(reason);
}
