#include "common/infra/Log.h"

#include "host/services/LogService.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <locale>

auto LogItem::Buffer::overflow(int_type character) -> int_type {
    if (!traits_type::eq_int_type(character, traits_type::eof())) {
        const char single = traits_type::to_char_type(character);
        m_item.append({&single, 1});
    }
    return traits_type::not_eof(character);
}

std::streamsize LogItem::Buffer::xsputn(const char* characters, std::streamsize length) {
    m_item.append({characters, static_cast<std::size_t>(length)});
    return length;
}

int LogItem::Buffer::sync() {
    m_item.flush();
    return 0;
}

LogItem::Stream::Stream(LogItem& item) : buffer(item), text(&buffer) {
    text.imbue(std::locale::classic());
}

LogItem::LogItem(LogModule module, LogLevel level, const char* function, int detail) noexcept
    : m_module(module),
      m_level(level),
      m_function(function),
      m_detail(detail),
      m_enabled(LogService::isEnabled(level)) {}

LogItem::~LogItem() = default;

LogItem& LogItem::operator<<(std::ostream& (*manipulator)(std::ostream&)) noexcept {
    if (!m_enabled) {
        return *this;
    }
    if (!m_stream.has_value() &&
        manipulator == static_cast<std::ostream& (*)(std::ostream&)>(std::endl)) {
        append("\n");
        flush();
    } else {
        writeToStream(manipulator);
    }
    return *this;
}

void LogItem::writeText(std::string_view text) noexcept {
    m_stream.has_value() ? writeToStream(text) : append(text);
}

void LogItem::append(std::string_view text) noexcept {
    if (m_spill.empty() && text.size() <= m_line.size() - m_length) {
        std::copy(text.begin(), text.end(), m_line.data() + m_length);
        m_length += text.size();
        return;
    }
    try {
        if (m_spill.empty()) {
            m_spill.assign(m_line.data(), m_length);
        }
        m_spill.append(text);
    } catch (const std::exception&) { // no memory, or longer than any text
        m_isCut = true;
    }
}

void LogItem::appendAddress(const void* address) noexcept {
    if (address == nullptr) {
        append("0");
        return;
    }
    append("0x");
    appendInteger(reinterpret_cast<std::uintptr_t>(address), 16);
}

LogItem& LogItem::flush() noexcept {
    const std::string_view text =
        m_spill.empty() ? std::string_view(m_line.data(), m_length) : std::string_view(m_spill);
    if (m_enabled && m_isCut) {
        LogService::drop(m_level);
    } else if (m_enabled) {
        LogService::write({m_module, m_level, m_function, m_detail, text});
    }
    m_isCut = false;
    m_length = 0;
    m_spill.clear();
    return *this;
}

std::ostream& LogItem::stream() noexcept {
    if (!m_stream.has_value()) {
        m_stream.emplace(*this);
    }
    return m_stream->text;
}
