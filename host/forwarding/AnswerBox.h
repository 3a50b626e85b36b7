#pragma once

#include "common/infra/Lock.h"
#include "host/forwarding/Sink.h"
#include "host/forwarding/Wakeup.h"

#include <utility>
#include <vector>

// Where a sink's answers wait for the forwarder's thread. Any thread.
class AnswerBox final : public IAnswers {
public:
    // `wakeup` is what the forwarder's thread waits for.
    explicit AnswerBox(Wakeup& wakeup) : m_wakeup(wakeup) {}

    void answer(std::vector<Answer> answers) override {
        bool wasEmpty = false;
        {
            const CheckedLock lock(m_mutex);
            wasEmpty = m_answers.empty();
            if (wasEmpty) {
                m_answers.swap(answers);
            } else {
                m_answers.insert(m_answers.end(), std::make_move_iterator(answers.begin()),
                                 std::make_move_iterator(answers.end()));
            }
        }
        if (wasEmpty) {
            m_wakeup.wake();
        }
    }

    std::vector<Answer> take() {
        const CheckedLock lock(m_mutex);
        return std::exchange(m_answers, {});
    }

private:
    Wakeup& m_wakeup;
    CheckedMutex m_mutex;
    std::vector<Answer> m_answers ANALYTICS_GUARDED_BY(m_mutex);
};
