#include "host/forwarding/OutputSink.h"

#include "host/forwarding/Record.h"

#include <exception>
#include <string>
#include <utility>
#include <vector>

void OutputSink::send(const std::vector<const Record*>& batch) {
    std::vector<Answer> answers = deliveredAll(batch);
    const std::string text = textOf(batch);
    try {
        m_output.write(text);
    } catch (const std::exception& error) {
        failAll(answers, error.what());
    }
    m_answers->answer(std::move(answers));
}

std::string OutputSink::textOf(const std::vector<const Record*>& batch) const {
    std::string text;
    const bool inColour = m_output.isTerminal();
    for (const Record* record : batch) {
        if (m_format == ParcelFormat::JsonLines) {
            text += record->line;
        } else if (record->parcel != nullptr) {
            text += formatParcel(*record->parcel, inColour);
        }
    }
    return text;
}
