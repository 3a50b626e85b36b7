#pragma once

#include "common/infra/Export.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

enum LogModule {
    LogModuleInvalid = 0,
    LogModuleKel = 1,
    LogModuleQem = 2,
    LogModuleCommon = 3,
    LogModulesCount = 4
};

enum LogLevel {
    AssertLevel = 0,
    FatalLevel = 1,
    ErrorLevel = 2,
    WarnLevel = 3,
    InfoLevel = 4,
    DebugLevel = 5,
    CtrLevel = 6,
    LongTermInfoLevel = 7,
    LevelsCount = 8
};

// One log line, an output stream whose text reaches the logging service at each flush:
//
//     LogItem(LogModuleKel, InfoLevel, __PRETTY_FUNCTION__, 3) << " size=" << size << std::endl;
//
// Whatever has an operator<< for std::ostream can be streamed. Texts, integers and pointers are
// written straight into the item; a standard stream, ten times as dear as the rest of a line, is
// made when the first other piece comes by, and from then on all pieces go through it, so that
// manipulators such as std::hex hold for what follows them. Numbers never depend on the process's
// locale.
//
// An item belongs to one thread. Destroying it drops text that was not flushed. A line below the
// service's level is not formatted at all.
class ANALYTICS_EXPORT LogItem {
public:
    // `function` is a literal or __PRETTY_FUNCTION__ and is kept by address; `detail` is passed to
    // the sink as it is.
    LogItem(LogModule module, LogLevel level, const char* function, int detail);
    ~LogItem();
    LogItem(const LogItem&) = delete;
    LogItem& operator=(const LogItem&) = delete;

    template <typename T>
    LogItem& operator<<(const T& piece) {
        if (!m_enabled) {
            return *this;
        }
        if (m_stream != nullptr) {
            stream() << piece;
        } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
            append(piece);
        } else if constexpr (isPlainInteger<T>) {
            appendInteger(piece);
        } else if constexpr (std::is_pointer_v<T> && std::is_convertible_v<T, const void*> &&
                             !isCharacter<std::remove_cv_t<std::remove_pointer_t<T>>>) {
            appendAddress(piece);
        } else {
            stream() << piece;
        }
        return *this;
    }

    // std::endl and its kind.
    LogItem& operator<<(std::ostream& (*manipulator)(std::ostream&));

    // Hands the text so far to the logging service.
    LogItem& flush();

    // The item as a standard stream, for code that takes one.
    operator std::ostream&() { return stream(); }

private:
    struct Stream;

    template <typename T>
    static constexpr bool isCharacter =
        std::is_same_v<T, char> || std::is_same_v<T, signed char> ||
        std::is_same_v<T, unsigned char> || std::is_same_v<T, wchar_t> ||
        std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;
    template <typename T>
    static constexpr bool isPlainInteger =
        std::is_integral_v<T> && !std::is_same_v<T, bool> && !isCharacter<T>;

    template <typename T>
    void appendInteger(T value, int base = 10) {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
        append({digits, static_cast<std::size_t>(end - digits)});
    }
    void append(std::string_view text);
    void appendAddress(const void* address);
    std::ostream& stream();

    const LogModule m_module;
    const LogLevel m_level;
    const char* const m_function;
    const int m_detail;
    const bool m_enabled;
    std::size_t m_length = 0;         // of the text in m_line
    std::string m_spill;              // the whole text, once it has outgrown m_line
    std::unique_ptr<Stream> m_stream; // null until a piece needs it
    std::array<char, 512> m_line;
};
