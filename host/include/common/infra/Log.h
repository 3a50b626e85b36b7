#pragma once

#include "common/infra/Export.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <optional>
#include <ostream>
#include <streambuf>
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
// written straight into the item. The first other piece makes a standard stream, which costs ten
// times as much as the rest of a line. From then on all pieces go through that stream, so
// manipulators such as std::hex hold for what follows them. Numbers never depend on the process's
// locale. A null text is written as "(null)".
//
// No operation throws. If a piece cannot be written, because memory is short or its operator<<
// throws, then the whole line is dropped at its flush, and LogService counts it.
//
// An item belongs to one thread. Destroying it drops text that was not flushed. A line below the
// service's level is not formatted at all.
class ANALYTICS_EXPORT LogItem {
public:
    // `function` is a literal or __PRETTY_FUNCTION__ and is kept by address; `detail` is passed to
    // the sink as it is.
    LogItem(LogModule module, LogLevel level, const char* function, int detail) noexcept;
    ~LogItem();
    LogItem(const LogItem&) = delete;
    LogItem& operator=(const LogItem&) = delete;

    template <typename T>
    LogItem& operator<<(const T& piece) noexcept {
        if (m_enabled) {
            write(piece);
        }
        return *this;
    }

    // std::endl and its kind.
    LogItem& operator<<(std::ostream& (*manipulator)(std::ostream&)) noexcept;

    // Hands the text so far to the logging service.
    LogItem& flush() noexcept;

    // The item as a standard stream, for code that takes one.
    operator std::ostream&() noexcept { return stream(); }

private:
    // Writes into an item.
    class Buffer : public std::streambuf {
    public:
        explicit Buffer(LogItem& item) : m_item(item) {}

    private:
        int_type overflow(int_type character) override;
        std::streamsize xsputn(const char* characters, std::streamsize length) override;
        int sync() override;

        LogItem& m_item;
    };
    struct Stream {
        explicit Stream(LogItem& item);

        Buffer buffer;
        std::ostream text;
    };

    template <typename T>
    static constexpr bool isCharacter =
        std::is_same_v<T, char> || std::is_same_v<T, signed char> ||
        std::is_same_v<T, unsigned char> || std::is_same_v<T, wchar_t> ||
        std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;
    template <typename T>
    static constexpr bool isPlainInteger =
        std::is_integral_v<T> && !std::is_same_v<T, bool> && !isCharacter<T>;
    // No further type, even if it converts to one of these: it may have an operator<< of its own.
    template <typename T>
    static constexpr bool
        isText = std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view> ||
                 (std::is_pointer_v<std::decay_t<T>> && std::is_convertible_v<T, const char*>);
    template <typename T>
    static constexpr bool isAddress =
        std::is_pointer_v<T>&& std::is_convertible_v<T, const void*> &&
        !isCharacter<std::remove_cv_t<std::remove_pointer_t<T>>>;

    static std::string_view toView(std::string_view text) { return text; }
    static std::string_view toView(const char* text) {
        return text != nullptr ? std::string_view(text) : std::string_view("(null)");
    }

    template <typename T>
    void write(const T& piece) noexcept {
        if constexpr (isText<T>) {
            writeText(toView(piece));
        } else if (m_stream.has_value()) {
            writeToStream(piece);
        } else if constexpr (isPlainInteger<T>) {
            appendInteger(piece);
        } else if constexpr (isAddress<T>) {
            appendAddress(piece);
        } else {
            writeToStream(piece);
        }
    }
    void writeText(std::string_view text) noexcept;

    template <typename T>
    void writeToStream(const T& piece) noexcept {
        std::ostream& out = stream();
#ifdef __cpp_exceptions
        try {
            out << piece;
        } catch (...) {
            m_isCut = true;
        }
#else
        out << piece;
#endif
        m_isCut = m_isCut || !out.good();
        out.clear();
    }

    template <typename T>
    void appendInteger(T value, int base = 10) noexcept {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
        append({digits, static_cast<std::size_t>(end - digits)});
    }
    void appendAddress(const void* address) noexcept;
    void append(std::string_view text) noexcept;
    std::ostream& stream() noexcept;

    const LogModule m_module;
    const LogLevel m_level;
    const char* const m_function;
    const int m_detail;
    const bool m_enabled;
    bool m_isCut = false;           // a piece of the line is missing
    std::size_t m_length = 0;       // of the text in m_line
    std::string m_spill;            // the whole text, once it has outgrown m_line
    std::optional<Stream> m_stream; // none until a piece needs it
    std::array<char, 512> m_line;
};
