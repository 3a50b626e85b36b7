#pragma once

#include "host/forwarding/Record.h"
#include "host/forwarding/Sink.h"

#include <algorithm>
#include <string>
#include <vector>

// An engine that answers when the test says so. One thread.
class ScriptedSink final : public ISink {
public:
    const char* name() const override { return "engine"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    void send(const std::vector<const Record*>& batch) override {
        for (const Record* record : batch) {
            m_inFlight.push_back(record);
            m_sent += (m_sent.empty() ? "" : " ") + std::to_string(record->sequence);
            stored.push_back(record->line);
            hadParcels = hadParcels && record->parcel != nullptr;
        }
        if (deliversAtOnce) {
            answerAll(Fate::Delivered);
        }
    }
    void purge() override {
        ++purges;
        if (purgesAtOnce) {
            answerAll(Fate::TryAgain, "purged");
        }
    }

    // The sequences that were sent since the last call, such as "1 2 3".
    std::string sent() { return std::exchange(m_sent, {}); }

    // Answers the record in flight with this sequence.
    void answer(u64 sequence, Fate fate, const std::string& reason = {}) {
        const auto record =
            std::find_if(m_inFlight.begin(), m_inFlight.end(),
                         [&](const Record* each) { return each->sequence == sequence; });
        const u64 ticket = (*record)->ticket;
        m_inFlight.erase(record);
        m_answers->answerOne(ticket, fate, reason);
    }
    void answerAll(Fate fate, const std::string& reason = {}) {
        while (!m_inFlight.empty()) {
            answer(m_inFlight.front()->sequence, fate, reason);
        }
    }

    bool deliversAtOnce = false;
    bool purgesAtOnce = true;
    bool hadParcels = true;
    int purges = 0;
    std::vector<std::string> stored; // lines that were sent

private:
    IAnswers* m_answers = nullptr;
    std::vector<const Record*> m_inFlight;
    std::string m_sent;
};
