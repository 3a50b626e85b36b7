#pragma once

// The library's log lines. Included from sources only.
//
//     LOG_LINE(LogModuleKel, InfoLevel) << " size=" << size << " " << std::endl;
//
//     EXPECT_OR_REPORT(size > 0) << " size=" << size << " ";
//
// The macros capture what only a macro can: the signature of the enclosing function, the text of
// the condition and the place. They must therefore stand in the function that a line names.

#include "common/infra/Log.h"

#include <ostream>

// A log item to stream a line into.
#define LOG_LINE(module, level) LogItem(module, level, __PRETTY_FUNCTION__, 3)

// Reports a condition that does not hold, and nothing more: what follows from it is the caller's.
// The condition is evaluated once, the details that are streamed into it only if it does not hold.
// The line's end is supplied. An expression, so it can stand wherever a statement can.
#define EXPECT_OR_REPORT(...)                                                                      \
    (__VA_ARGS__)                                                                                  \
        ? static_cast<void>(0)                                                                     \
        : log_line::End() & log_line::beginAssertion(LOG_LINE(LogModuleKel, AssertLevel),          \
                                                     __FILE_NAME__, __LINE__, #__VA_ARGS__)

namespace log_line {

// Writes the part of an assertion line that comes before the details.
inline LogItem& beginAssertion(LogItem&& item, const char* file, int line, const char* condition) {
    item << " " << file << " " << line << ": " << condition << " failed. ";
    return item;
}

// Ends the line: binds looser than <<, so it comes after the details.
struct End {
    template <typename Line>
    void operator&(Line&& line) const {
        line << std::endl;
    }
};

} // namespace log_line
