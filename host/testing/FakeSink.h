#pragma once

#include "common/infra/Export.h"
#include "common/infra/Lock.h"
#include "host/forwarding/Record.h"
#include "host/forwarding/Sink.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <stdexcept>
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
// Any thread. The members are set before the forwarder starts.
class ANALYTICS_TAG FakeSink final : public ISink {
public:
    const char* name() const override { return "engine"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    void send(const std::vector<const Record*>& batch) override {
        std::vector<Answer> delivered = deliveredAll(batch);
        {
            const CheckedLock lock(m_mutex);
            take(batch);
        }
        if (deliversAtOnce) {
            m_answers->answer(std::move(delivered));
        }
        if (onSend) {
            onSend();
        }
    }
    void purge() override {
        if (purgesAtOnce) {
            answerAll(Fate::TryAgain, "purged");
        }
        const CheckedLock lock(m_mutex);
        m_calls.push_back(purged);
    }

    // What was called since the last look: the sequences sent, and purges, such as "1-3 purge 2".
    std::string calls() {
        const CheckedLock lock(m_mutex);
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

    // Answers the oldest record in flight with this sequence. Throws std::invalid_argument if there
    // is none.
    void answer(u64 sequence, Fate fate, const std::string& reason = {}) {
        u64 ticket = 0;
        {
            const CheckedLock lock(m_mutex);
            const auto record =
                std::find_if(m_inFlight.begin(), m_inFlight.end(),
                             [&](const Record* each) { return each->sequence == sequence; });
            if (record == m_inFlight.end()) {
                throw std::invalid_argument("FakeSink::answer: record " + std::to_string(sequence) +
                                            " is not in flight");
            }
            ticket = (*record)->ticket;
            m_inFlight.erase(record);
        }
        m_answers->answerOne(ticket, fate, reason);
    }
    void answerAll(Fate fate, const std::string& reason = {}) {
        std::vector<Answer> answers;
        {
            const CheckedLock lock(m_mutex);
            for (const Record* record : m_inFlight) {
                answers.push_back({record->ticket, fate, reason});
            }
            m_inFlight.clear();
        }
        if (!answers.empty()) {
            m_answers->answer(std::move(answers));
        }
    }
    // Records that wait for their answer.
    std::size_t inFlight() const {
        const CheckedLock lock(m_mutex);
        return m_inFlight.size();
    }
    // The lines of all records sent.
    std::vector<std::string> lines() const {
        const CheckedLock lock(m_mutex);
        return m_lines;
    }

    bool deliversAtOnce = false;
    bool purgesAtOnce = true;          // answers what is in flight within purge()
    std::function<void()> onSend = {}; // called last in each send(), which ends when it returns

private:
    static constexpr u64 purged = 0; // no record's sequence

    // A throw leaves everything as it was.
    void take(const std::vector<const Record*>& batch) ANALYTICS_REQUIRES(m_mutex) {
        std::vector<std::string> lines;
        for (const Record* record : batch) {
            lines.push_back(record->line);
        }
        m_inFlight.reserve(m_inFlight.size() + batch.size());
        m_calls.reserve(m_calls.size() + batch.size());
        m_lines.insert(m_lines.end(), std::make_move_iterator(lines.begin()),
                       std::make_move_iterator(lines.end()));
        for (const Record* record : batch) {
            m_calls.push_back(record->sequence);
            if (!deliversAtOnce) {
                m_inFlight.push_back(record);
            }
        }
    }

    IAnswers* m_answers = nullptr;
    mutable CheckedMutex m_mutex;
    std::vector<const Record*> m_inFlight ANALYTICS_GUARDED_BY(m_mutex);
    std::vector<u64> m_calls ANALYTICS_GUARDED_BY(m_mutex);
    std::vector<std::string> m_lines ANALYTICS_GUARDED_BY(m_mutex);
};
