#include "common/infra/Log.h"

#include "host/services/LogService.h"

#include <cstdint>
#include <cstring>
#include <locale>
#include <streambuf>

// A standard stream that writes into an item.
struct LogItem::Stream {
    explicit Stream(LogItem& item) : buffer(item), text(&buffer) {
        text.imbue(std::locale::classic());
        text.exceptions(
            std::ios_base::badbit); // a line that memory cut short is not passed off as whole
    }

    class Buffer : public std::streambuf {
    public:
        explicit Buffer(LogItem& item) : m_item(item) {}

    private:
        int_type overflow(int_type character) override {
            if (!traits_type::eq_int_type(character, traits_type::eof())) {
                const char single = traits_type::to_char_type(character);
                m_item.append({&single, 1});
            }
            return traits_type::not_eof(character);
        }

        std::streamsize xsputn(const char* characters, std::streamsize length) override {
            m_item.append({characters, static_cast<std::size_t>(length)});
            return length;
        }

        int sync() override {
            m_item.flush();
            return 0;
        }

        LogItem& m_item;
    };

    Buffer buffer;
    std::ostream text;
};

LogItem::LogItem(LogModule module, LogLevel level, const char* function, int detail)
    : m_module(module),
      m_level(level),
      m_function(function),
      m_detail(detail),
      m_enabled(LogService::isEnabled(level)) {}

LogItem::~LogItem() = default;

LogItem& LogItem::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    if (!m_enabled) {
        return *this;
    }
    if (m_stream == nullptr &&
        manipulator == static_cast<std::ostream& (*)(std::ostream&)>(std::endl)) {
        append("\n");
        flush();
    } else {
        manipulator(stream());
    }
    return *this;
}

void LogItem::append(std::string_view text) {
    if (m_spill.empty() && text.size() <= m_line.size() - m_length) {
        std::memcpy(m_line.data() + m_length, text.data(), text.size());
        m_length += text.size();
        return;
    }
    if (m_spill.empty()) {
        m_spill.assign(m_line.data(), m_length);
    }
    m_spill.append(text);
}

void LogItem::appendAddress(const void* address) {
    if (address == nullptr) {
        append("0");
        return;
    }
    append("0x");
    appendInteger(reinterpret_cast<std::uintptr_t>(address), 16);
}

LogItem& LogItem::flush() {
    const std::string_view text =
        m_spill.empty() ? std::string_view(m_line.data(), m_length) : std::string_view(m_spill);
    if (m_enabled) {
        LogService::write({m_module, m_level, m_function, m_detail, text});
    }
    m_length = 0;
    m_spill.clear();
    return *this;
}

std::ostream& LogItem::stream() {
    if (m_stream == nullptr) {
        m_stream = std::make_unique<Stream>(*this);
    }
    return m_stream->text;
}
