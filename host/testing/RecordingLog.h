#pragma once

#include "common/infra/Export.h"
#include "host/services/LogService.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

// Takes the place of the log's sink for its lifetime and keeps every line. Thread-safe; must
// outlive the threads that log.
class ANALYTICS_TAG RecordingLog : public ILogSink {
public:
    struct Line {
        LogModule module;
        LogLevel level;
        std::string function;
        int detail;
        std::string text; // line ends included
    };

    RecordingLog() : m_previous(LogService::setSink(this)) {}
    ~RecordingLog() override { LogService::setSink(m_previous); }
    RecordingLog(const RecordingLog&) = delete;
    RecordingLog& operator=(const RecordingLog&) = delete;

    void write(const LogRecord& record) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back({record.module, record.level, record.function, record.detail,
                               std::string(record.text)});
        }
        m_written.notify_all();
    }

    std::vector<Line> lines() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    std::vector<std::string> texts(LogLevel level) const {
        std::vector<std::string> result;
        for (const Line& line : lines()) {
            if (line.level == level) {
                result.push_back(line.text);
            }
        }
        return result;
    }

    // Waits until a line whose text contains `part` was written; false if there is none after 10 s.
    bool waitFor(const std::string& part) const {
        const auto holdsPart = [&](const Line& line) {
            return line.text.find(part) != std::string::npos;
        };
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_written.wait_for(lock, std::chrono::seconds(10), [&] {
            return std::any_of(m_lines.begin(), m_lines.end(), holdsPart);
        });
    }

    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    ILogSink* const m_previous;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_written;
    std::vector<Line> m_lines; // under m_mutex
};
