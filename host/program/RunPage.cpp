#include "host/program/RunPage.h"

#include "host/forwarding/Record.h"
#include "host/report/HtmlPage.h"

#include <cstddef>
#include <exception>
#include <utility>
#include <vector>

RunPage::RunPage(std::string path)
    : m_path(std::move(path)), m_collector({}), m_lines(m_collector.linesOf("this run")) {
    report::checkPage(m_path);
}

void RunPage::send(const std::vector<const Record*>& batch) {
    std::vector<Answer> answers = deliveredAll(batch);
    try {
        for (const Record* record : batch) {
            add(record->line);
        }
    } catch (const std::exception& error) {
        failAll(answers, error.what());
    }
    m_answers->answer(std::move(answers));
}

void RunPage::write() const {
    report::writePage(m_collector, m_path);
}

// A line may be longer than the room there is.
void RunPage::add(std::string_view line) {
    while (!line.empty()) {
        char* const room = m_lines.room();
        const std::size_t count = line.copy(room, m_lines.roomSize());
        m_lines.bytesAdded(count);
        line.remove_prefix(count);
    }
}
