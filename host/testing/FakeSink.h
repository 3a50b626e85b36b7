#pragma once

#include "host/forwarding/Record.h"
#include "host/forwarding/Sink.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// An engine that answers when the test says so, for tests of a service that forwards: what becomes
// of its reports while the engine is away, refuses one, or hangs.
//
//     auto engine = std::make_unique<FakeSink>();
//     FakeSink& sink = *engine;
//     Forwarder forwarder(outbox, std::move(engine), {}, {});
//     ...
//     sink.answer(1, Fate::Failed, "too large");
//
// The test may answer as soon as onSend was called, from any thread. Otherwise one thread at a
// time.
class FakeSink final : public ISink {
public:
    const char* name() const override { return "engine"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    void send(const std::vector<const Record*>& batch) override {
        for (const Record* record : batch) {
            m_inFlight.push_back(record);
            m_calls.push_back(record->sequence);
            lines.push_back(record->line);
        }
        if (deliversAtOnce) {
            answerAll(Fate::Delivered);
        }
        if (onSend) {
            onSend();
        }
    }
    void purge() override {
        m_calls.push_back(purged);
        if (purgesAtOnce) {
            answerAll(Fate::TryAgain, "purged");
        }
    }

    // What was called since the last look: the sequences sent, and purges, such as "1-3 purge 2".
    std::string calls() {
        const std::vector<u64> calls = std::exchange(m_calls, {});
        std::string text;
        for (std::size_t i = 0; i < calls.size(); ++i) {
            const std::size_t first = i;
            while (calls[i] != purged && i + 1 < calls.size() && calls[i + 1] == calls[i] + 1) {
                ++i;
            }
            text += text.empty() ? "" : " ";
            text += calls[i] == purged ? "purge" : std::to_string(calls[first]);
            text += i == first ? "" : "-" + std::to_string(calls[i]);
        }
        return text;
    }

    // Answers the oldest record in flight with this sequence; there has to be one.
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
    bool purgesAtOnce = true;          // answers what is in flight within purge()
    std::function<void()> onSend = {}; // called last in each send(), which ends when it returns
    std::vector<std::string> lines;    // of all records sent

private:
    static constexpr u64 purged = 0; // no record's sequence

    IAnswers* m_answers = nullptr;
    std::vector<const Record*> m_inFlight;
    std::vector<u64> m_calls;
};
