#pragma once

#include "common/infra/Export.h"
#include "common/infra/Lock.h"
#include "host/forwarding/Sink.h"
#include "host/forwarding/Wakeup.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

// Where a sink's answers wait for the forwarder's thread. Any thread.
class ANALYTICS_TAG AnswerBox final : public IAnswers {
public:
    // `wakeup` is what the forwarder's thread waits for.
    explicit AnswerBox(Wakeup& wakeup) : m_wakeup(wakeup) {}

    void answer(std::vector<Answer> answers) override {
        bool wasEmpty = false;
        {
            const CheckedLock lock(m_mutex);
            wasEmpty = m_answers.empty();
            m_answers.insert(m_answers.end(), std::make_move_iterator(answers.begin()),
                             std::make_move_iterator(answers.end()));
        }
        if (wasEmpty) {
            m_wakeup.wake();
        }
    }

    // From now on so many answers find room without any more memory.
    void makeRoomFor(std::size_t count) {
        const CheckedLock lock(m_mutex);
        if (m_answers.capacity() < count) {
            m_answers.reserve(std::max(count, 2 * m_answers.capacity()));
        }
    }

    // All that wait, into `answers`, which is empty.
    void take(std::vector<Answer>& answers) {
        const CheckedLock lock(m_mutex);
        answers.reserve(m_answers.capacity()); // the room for those that come next
        m_answers.swap(answers);
    }

private:
    Wakeup& m_wakeup;
    CheckedMutex m_mutex;
    std::vector<Answer> m_answers ANALYTICS_GUARDED_BY(m_mutex);
};
