#pragma once

// The library's log lines. Included from sources only.
//
//     LOG_LINE(LogModuleKel, InfoLevel) << " size=" << size << " " << std::endl;
//
//     EXPECT_OR_REPORT(size > 0) << " size=" << size << " ";
//
// The macros capture what only a macro can: the signature of the enclosing function, the text of
// the condition and the place. They must therefore stand in the function that a line names.

#include "common/infra/FileName.h"
#include "common/infra/Log.h"

#include <charconv>
#include <cstdint>
#include <ostream>
#include <type_traits>

// A line to stream into.
#define LOG_LINE(module, level) log_line::Line(module, level, __PRETTY_FUNCTION__)

// Writes an assertion line if the condition does not hold; the caller goes on in either case. The
// condition is evaluated once, the streamed details only if it does not hold. The macro ends the
// line. It is an expression, so it can stand wherever a statement can.
#define EXPECT_OR_REPORT(...)                                                                      \
    (__VA_ARGS__)                                                                                  \
        ? static_cast<void>(0)                                                                     \
        : log_line::End() & LOG_LINE(LogModuleKel, AssertLevel)                                    \
                                .beginAssertion(ANALYTICS_FILE_NAME, __LINE__, #__VA_ARGS__)

namespace log_line {

// A log item, streamed into piece by piece. Numbers and addresses reach it as text: a host's own
// stream may group digits the way the process's locale does.
class ANALYTICS_TAG Line {
public:
    Line(LogModule module, LogLevel level, const char* function)
        : m_item(module, level, function, 3) {}

    template <typename T>
    Line& operator<<(const T& piece) {
        if constexpr (std::is_integral_v<T> && sizeof(T) >= sizeof(int)) {
            writeNumber(piece, 10);
        } else if constexpr (std::is_same_v<T, const void*>) {
            m_item << (piece == nullptr ? "" : "0x");
            writeNumber(reinterpret_cast<std::uintptr_t>(piece), 16);
        } else {
            m_item << piece;
        }
        return *this;
    }

    Line& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
        m_item << manipulator;
        return *this;
    }

    // The part of an assertion line that comes before the details.
    Line& beginAssertion(const char* file, int line, const char* condition) {
        return *this << " " << file << " " << line << ": " << condition << " failed. ";
    }

private:
    template <typename T>
    void writeNumber(T number, int base) {
        char digits[24];
        *std::to_chars(digits, digits + sizeof digits - 1, number, base).ptr = '\0';
        m_item << static_cast<const char*>(digits);
    }

    LogItem m_item;
};

// Ends the line. & binds looser than <<, so it comes after the details.
struct ANALYTICS_TAG End {
    void operator&(Line& line) const { line << std::endl; }
};

} // namespace log_line
