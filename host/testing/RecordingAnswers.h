#pragma once

#include "common/infra/Export.h"
#include "common/infra/Lock.h"
#include "host/forwarding/Sink.h"

#include <chrono>
#include <condition_variable>
#include <string>
#include <utility>
#include <vector>

// Stands for the forwarder in the tests of a sink: it keeps what the sink answers.
//
//     RecordingAnswers answers;
//     sink.start(answers);
//     sink.send({&record});
//     EXPECT_EQ(answers.take(1), "7 delivered");
//
// Any thread; outlives the sink's answers.
class ANALYTICS_TAG RecordingAnswers final : public IAnswers {
public:
    void answer(std::vector<Answer> answers) override {
        const CheckedLock lock(m_mutex);
        for (Answer& each : answers) {
            m_answers.push_back(std::move(each));
        }
        m_changed.notify_all();
    }

    // Waits for so many answers, at most 10 s. What was answered since the last look, such as
    // "7 delivered, 8 failed: too large, 9 try again: away".
    std::string take(std::size_t count) {
        CheckedLock lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::seconds(10), [&] {
            m_mutex.assumeHeld();
            return m_answers.size() >= count;
        });
        std::string text;
        for (const Answer& each : std::exchange(m_answers, {})) {
            text += (text.empty() ? "" : ", ") + std::to_string(each.ticket) + nameOf(each.fate) +
                    (each.reason.empty() ? "" : ": " + each.reason);
        }
        return text;
    }

private:
    static const char* nameOf(Fate fate) {
        return fate == Fate::Delivered ? " delivered"
               : fate == Fate::Failed  ? " failed"
                                       : " try again";
    }

    CheckedMutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Answer> m_answers ANALYTICS_GUARDED_BY(m_mutex);
};
