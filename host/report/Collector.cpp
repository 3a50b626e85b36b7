#include "host/report/Collector.h"

namespace report {

namespace {

constexpr std::size_t mostShown = 3;

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\r") == std::string_view::npos;
}

} // namespace

LineSplitter Collector::linesOf(const std::string& file) {
    return {RecordParser::padding,
            [this, file](const LineSplitter::Line& line) { take(file, line); }};
}

void Collector::take(const std::string& file, const LineSplitter::Line& line) {
    if (isBlank(line.text) && !line.isTooLong) {
        return;
    }
    const char* reason =
        line.isTooLong ? "it is longer than 16 MiB" : m_parser.parse(line.text, m_record);
    if (reason == nullptr) {
        m_fleet.add(m_record);
        return;
    }
    ++m_notUnderstood;
    if (m_first.size() < mostShown) {
        m_first.push_back({file, line.number, reason});
    }
}

} // namespace report
