#include "host/report/LineSplitter.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace report {

namespace {

constexpr std::size_t smallestRoom = std::size_t{256} << 10U;

} // namespace

LineSplitter::LineSplitter(std::size_t padding, OnLine onLine)
    : m_padding(padding), m_onLine(std::move(onLine)), m_buffer(2 * smallestRoom + padding) {}

char* LineSplitter::room() {
    if (roomSize() < smallestRoom) {
        m_buffer.resize(2 * m_buffer.size());
    }
    return m_buffer.data() + m_used;
}

std::size_t LineSplitter::roomSize() const {
    return m_buffer.size() - m_padding - m_used;
}

void LineSplitter::bytesAdded(std::size_t count) {
    const std::size_t end = m_used + count;
    std::size_t begin = 0;
    const char* from = m_buffer.data() + m_used;
    const char* const bytes = m_buffer.data();
    while (const void* found =
               std::memchr(from, '\n', static_cast<std::size_t>(bytes + end - from))) {
        const char* const feed = static_cast<const char*>(found);
        const auto length = static_cast<std::size_t>(feed - bytes) - begin;
        endLine({bytes + begin, length});
        begin += length + 1;
        from = feed + 1;
    }
    keep(begin, end);
}

void LineSplitter::finish() {
    if (m_used > 0 || m_isTooLong) {
        endLine({m_buffer.data(), m_used});
    }
    m_used = 0;
}

void LineSplitter::endLine(std::string_view text) {
    Line line{text, ++m_lines, m_isTooLong || text.size() > longest};
    if (line.isTooLong) {
        line.text = {};
    }
    m_isTooLong = false;
    m_onLine(line);
}

void LineSplitter::keep(std::size_t begin, std::size_t end) {
    m_used = end - begin;
    if (m_used > longest) {
        m_isTooLong = true;
    }
    if (m_isTooLong) {
        m_used = 0;
    }
    std::memmove(m_buffer.data(), m_buffer.data() + begin, m_used);
}

} // namespace report
