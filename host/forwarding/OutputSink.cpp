#include "host/forwarding/OutputSink.h"

#include "host/forwarding/Record.h"

#include <exception>
#include <string>

void OutputSink::send(const std::vector<const Record*>& batch) {
    Answer answer;
    try {
        m_output.write(textOf(batch));
    } catch (const std::exception& error) {
        answer = {0, Fate::Failed, error.what()};
    }
    m_answers->answerAll(batch, answer);
}

std::string OutputSink::textOf(const std::vector<const Record*>& batch) const {
    std::string text;
    const bool inColour = m_output.isTerminal();
    for (const Record* record : batch) {
        if (m_format == ParcelFormat::JsonLines) {
            text += record->line;
        } else if (record->parcel != nullptr) {
            text += toText(*record->parcel, inColour);
        }
    }
    return text;
}
