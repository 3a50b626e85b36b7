#include "common/infra/IParcelOutbox.h"
#include "host/forwarding/Courier.h"
#include "host/services/Clock.h"
#include "host/services/MemLedger.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <new>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

// An engine that is short of memory as well.
class PoorEngine final : public ISink {
public:
    const char* name() const override { return "engine"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    void send(const std::vector<const Record*>& batch) override {
        std::vector<const Record*> inFlight = m_inFlight;
        inFlight.insert(inFlight.end(), batch.begin(), batch.end());
        m_inFlight.swap(inFlight);
    }
    void purge() override {
        answer(m_inFlight.size(), [](u64 /*sequence*/) { return Fate::TryAgain; });
        m_state = Taking;
    }

    // The first record that it has is to be sent again, and sequence 3 is lost. False: it has
    // nothing to answer.
    bool answer() {
        if (m_inFlight.empty() || m_state == Refusing) {
            return false;
        }
        if (m_state == New) {
            m_state = Refusing;
            answer(1, [](u64 /*sequence*/) { return Fate::TryAgain; });
        } else {
            answer(m_inFlight.size(), [this](u64 sequence) {
                fates += " " + std::to_string(sequence) + (sequence == 3 ? " lost" : "");
                return sequence == 3 ? Fate::Failed : Fate::Delivered;
            });
        }
        return true;
    }

    // Of the first `count` in flight.
    template <typename FateOf>
    void answer(std::size_t count, FateOf fateOf) {
        std::vector<Answer> answers;
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_NE(m_inFlight[i]->line.find(R"("forwardedAt":"1970-01-01T00:00:00.000Z")"),
                      std::string::npos)
                << m_inFlight[i]->line;
            answers.push_back({m_inFlight[i]->ticket, fateOf(m_inFlight[i]->sequence),
                               "a reason that takes some memory"});
        }
        m_inFlight.erase(m_inFlight.begin(), m_inFlight.begin() + static_cast<s64>(count));
        m_answers->answer(std::move(answers));
    }

    std::string fates; // the last one of each record

private:
    IAnswers* m_answers = nullptr;
    std::vector<const Record*> m_inFlight;
    enum { New, Refusing, Taking } m_state = New;
};

// A sink beside the engine.
class Beside final : public ISink {
public:
    const char* name() const override { return "beside"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    void send(const std::vector<const Record*>& batch) override {
        std::vector<Answer> answers = deliveredAll(batch);
        std::string longer = sequences;
        for (const Record* record : batch) {
            longer += " " + std::to_string(record->sequence);
        }
        sequences.swap(longer);
        m_answers->answer(std::move(answers));
    }
    void purge() override {}

    std::string sequences;

private:
    IAnswers* m_answers = nullptr;
};

// What a process has while it lives. The courier runs out of memory, and nobody else.
struct Life {
    explicit Life(const ForwarderOptions& options)
        : courier(account, answers, engine, {&beside}, options) {}

    void push(int count) {
        for (int i = 0; i < count; ++i) {
            outbox.pushParcel(TRACKED_NEW(AnalyticsParcel)(), IParcelOutbox::KEL_ANALYTICS);
        }
    }
    // Returns the moment of the next step. `left` are the allocations before the one that fails.
    u64 step(int& left) {
        u64 nextNs = nowNs + nsPerSecond;
        allocationsLeft = left;
        try {
            nextNs = courier.step(nowNs, 0);
        } catch (const std::bad_alloc&) { // the next step goes on
        }
        left = std::exchange(allocationsLeft, unlimitedAllocations);
        EXPECT_TRUE(account.numbers().addsUp()) << account.numbers().text();
        return nextNs;
    }
    // As the forwarder's thread does: a step when one is due, or after a wake-up. The engine
    // answers when there is nothing else to do.
    void stepUntilIdle(int& left) {
        u64 nextNs = nowNs;
        while (wakeup.waitUntil(0) || nextNs != Wakeup::never || engine.answer()) {
            nowNs = nextNs == Wakeup::never ? nowNs : std::max(nowNs, nextNs);
            nextNs = step(left);
            if (nextNs != Wakeup::never && nextNs > nowNs + longNs) {
                nextNs = Wakeup::never; // a record waits for its answer
            }
        }
        EXPECT_TRUE(courier.isIdle());
    }
    static constexpr u64 longNs = 3'600 * nsPerSecond;

    ParcelOutbox outbox{100};
    Account account{outbox};
    Wakeup wakeup;
    AnswerBox answers{wakeup};
    PoorEngine engine;
    Beside beside;
    Courier courier;
    u64 nowNs = 0;
};

// With the first allocation failing, with the second, and so on until none fails.
template <typename Operation>
void failEachAllocationOf(Operation operation) {
    int allocations = 0;
    for (int left = unlimitedAllocations;
         left == unlimitedAllocations && !testing::Test::HasFailure(); ++allocations) {
        SCOPED_TRACE("after " + std::to_string(allocations) + " allocations");
        const u64 before = MemLedger::report().liveBlocks;
        left = allocations;
        operation(left);
        EXPECT_EQ(MemLedger::report().liveBlocks, before);
    }
    EXPECT_GE(allocations, 2);
}

struct Row {
    const char* name;
    u64 spoolBytes;  // 0: none
    bool isRestored; // the parcels are in the spool at the start
    const char* outcome;

    friend std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }
};

class CourierFailureTest : public testing::TestWithParam<Row> {
protected:
    void SetUp() override { std::filesystem::create_directory(m_folder); }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    ForwarderOptions options() const {
        ForwarderOptions options;
        options.hostId = "host";
        options.answerTimeout = std::chrono::hours(24); // nothing is to depend on it
        if (GetParam().spoolBytes > 0) {
            options.spool = SpoolOptions{m_folder + "/spool", GetParam().spoolBytes};
        }
        return options;
    }
    // Of five parcels and then the account: what the account says, what became of the records at
    // the engine, and what the sink beside it was sent.
    std::string outcome(int& left) const {
        if (GetParam().isRestored) {
            int unlimited = unlimitedAllocations;
            Life earlier(options());
            earlier.push(5);
            earlier.step(unlimited);
        }
        Life life(options());
        life.push(GetParam().isRestored ? 0 : 5);
        life.stepUntilIdle(left);
        life.courier.addAccount();
        life.stepUntilIdle(left);
        return life.account.numbers().text() + ":" + life.engine.fates + ":" +
               life.beside.sequences;
    }

private:
    const std::string m_folder = testing::TempDir() + "poor." + std::to_string(getpid());
    RecordingLog m_log;
};

TEST_P(CourierFailureTest, AStepGoesOnWhereAnotherRanOutOfMemory) {
    failEachAllocationOf([&](int& left) { EXPECT_EQ(outcome(left), GetParam().outcome); });
}

TEST(CourierEndTest, AfterAStepThatRanOutOfMemoryLeaksNothing) {
    failEachAllocationOf([](int& left) {
        Life life({});
        life.push(5);
        life.step(left);
    });
}

// The wake-up that the answer was worth went to a step that had others to settle first.
TEST(CourierEndTest, ComesToAnAnswerAfterAStepThatRanOutOfMemory) {
    ForwarderOptions patient;
    patient.answerTimeout = std::chrono::hours(24);
    failEachAllocationOf([&](int& left) {
        int unlimited = unlimitedAllocations;
        Life life(patient);
        life.push(2);
        life.step(unlimited);
        life.engine.answer(1, [](u64 /*sequence*/) { return Fate::TryAgain; });
        life.wakeup.waitUntil(0);
        life.step(left);
        life.engine.answer();
        life.stepUntilIdle(unlimited);
    });
}

const char* const allSent = "pushed=6 restored=0 delivered=5 failed=1 dropped=0 evicted=0 waiting=0"
                            ": 1 2 3 lost 4 5 6: 1 2 3 4 5 6";
const char* const evicted = "pushed=7 restored=0 delivered=4 failed=0 dropped=0 evicted=3 waiting=0"
                            ": 4 5 6 7: 1 2 3 4 5 6 7";
const char* const restored =
    "pushed=1 restored=5 delivered=5 failed=1 dropped=0 evicted=0 waiting=0: 1 2 3 lost 4 5 1: 1";

INSTANTIATE_TEST_SUITE_P(With, CourierFailureTest,
                         testing::Values(Row{"NoSpool", 0, false, allSent},
                                         Row{"ASpool", 1U << 20U, false, allSent},
                                         Row{"AFullSpool", 1'200, false, evicted},
                                         Row{"ARestoredSpool", 1U << 20U, true, restored}),
                         [](const auto& row) { return row.param.name; });

} // namespace
