#pragma once

#include "common/infra/Export.h"

#include <ostream>
#include <sstream>

enum LogModule { LogModuleInvalid, LogModuleKel, LogModuleQem, LogModuleCommon, LogModulesCount };

enum LogLevel {
    AssertLevel,
    FatalLevel,
    ErrorLevel,
    WarnLevel,
    InfoLevel,
    DebugLevel,
    CtrLevel,
    LongTermInfoLevel,
    LevelsCount
};

// A stream whose lines go to the service's log, standard error, at each flush.
class ANALYTICS_EXPORT LogItem : public std::ostream {
public:
    LogItem(LogModule module, LogLevel level, const char* function, int detail);

private:
    class Buffer : public std::stringbuf {
    public:
        Buffer(LogModule module, LogLevel level, const char* function);

    private:
        int sync() override;

        LogModule m_module;
        LogLevel m_level;
        const char* m_function;
    };

    Buffer m_buffer;
};
