#include "host/forwarding/Courier.h"

#include "common/infra/IParcelOutbox.h"
#include "host/services/Clock.h"
#include "host/services/MemLedger.h"
#include "host/testing/FakeSink.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Files.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <optional>
#include <sstream>

namespace {

using Lines = std::vector<std::string>;

class CourierTest : public testing::Test {
protected:
    void TearDown() override {
        courier.reset();
        outbox.reset();
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }

    void useSpool(u64 limitBytes = 64U << 20U) {
        options.spool = SpoolOptions{folder / "spool", limitBytes};
    }
    // A run of the process: what is in memory is gone with its end.
    void begin(u64 outboxSize = 20'000) {
        courier.reset();
        outbox.emplace(outboxSize);
        account.emplace(*outbox);
        wakeup.emplace();
        answers.emplace(*wakeup);
        engine.emplace();
        beside.emplace();
        beside->deliversAtOnce = true;
        courier.emplace(*account, *answers, *engine, std::vector<ISink*>{&*beside}, options);
    }

    void push(u64 count, std::size_t textSize = 0) {
        for (u64 i = 0; i < count; ++i) {
            auto* parcel = TRACKED_NEW(AnalyticsParcel)();
            parcel->setText(std::string(textSize, 'x'));
            outbox->pushParcel(parcel, IParcelOutbox::KEL_ANALYTICS);
        }
    }
    // Steps until nothing changes; the account adds up after each. What the engine was called, the
    // account, and when the next step is due.
    std::string step(u64 afterMs = 0) {
        nowNs += afterMs * nsPerMs;
        u64 nextNs = 0;
        for (int i = 0; i < 4; ++i) {
            nextNs = courier->step(nowNs, epochMs);
            EXPECT_TRUE(account->numbers().addsUp()) << account->numbers().text();
        }
        const std::string next =
            nextNs == Wakeup::never ? "" : " +" + std::to_string((nextNs - nowNs) / nsPerMs);
        return "[" + engine->calls() + "]" + columns() + next + (courier->isIdle() ? " idle" : "");
    }
    std::string pushAndStep(u64 count, std::size_t textSize = 0) {
        push(count, textSize);
        return step();
    }
    // Runs the story with the first allocation of its poor steps failing, with the second, and so
    // on until none fails.
    void failEachAllocation(const std::function<void()>& story) {
        options.answerTimeout = std::chrono::hours(24); // nothing depends on it
        int allocations = 0;
        for (; left == unlimitedAllocations && !HasFailure(); ++allocations) {
            SCOPED_TRACE("after " + std::to_string(allocations) + " allocations");
            begin();
            left = allocations;
            story();
        }
        left = unlimitedAllocations;
        EXPECT_GE(allocations, 2);
    }
    // The courier runs out of memory after so many allocations as are `left`, and nobody else.
    u64 poorStep() {
        u64 nextNs = nowNs + nsPerSecond;
        allocationsLeft = left;
        try {
            nextNs = courier->step(nowNs, epochMs);
        } catch (const std::bad_alloc&) { // the next step goes on
        }
        left = std::exchange(allocationsLeft, unlimitedAllocations);
        EXPECT_TRUE(account->numbers().addsUp()) << account->numbers().text();
        return nextNs;
    }
    // Poor steps as the forwarder's thread does them, when one is due or after a wake-up. The
    // engine answers when there is nothing else to do.
    void runUntilIdle(const std::function<void()>& answer) {
        for (u64 nextNs = nowNs;; nextNs = poorStep()) {
            const bool isDue = nextNs <= nowNs + 3'600 * nsPerSecond; // no time-out
            nowNs = isDue ? std::max(nowNs, nextNs) : nowNs;
            if (!wakeup->waitUntil(0) && !isDue) {
                if (engine->inFlight() == 0) {
                    break;
                }
                answer();
            }
        }
        EXPECT_TRUE(courier->isIdle());
    }
    // What is not 0, such as " pushed=2 waiting=2", and why what failed has.
    static std::string columns(const AccountNumbers& numbers) {
        std::istringstream words(numbers.text() + " lost=" + std::to_string(numbers.lost()));
        std::string text;
        for (std::string word; words >> word;) {
            text += word.substr(word.find('=')) == "=0" ? "" : " " + word;
        }
        return text;
    }
    std::string columns() const {
        const AccountNumbers numbers = account->numbers();
        std::string text = columns(numbers);
        for (const auto& [reason, count] : numbers.failures) {
            text += " '" + reason + "'=" + std::to_string(count);
        }
        return text;
    }
    void deliver(u64 first, u64 last) {
        for (u64 sequence = first; sequence <= last; ++sequence) {
            engine->answer(sequence, Fate::Delivered);
        }
    }
    std::string stepDelivered() {
        engine->answerAll(Fate::Delivered);
        return step();
    }

    // Overwrites all of it.
    void damageSpool() const {
        for (const char* file : {"spool", "spool-wal"}) {
            const std::string garbage(std::filesystem::file_size(folder / file), 'x');
            std::fstream(folder / file, std::ios::in | std::ios::out) << garbage;
        }
    }

    RecordingLog log;
    const MemReport before = MemLedger::report();
    const TempFolder folder;
    ForwarderOptions options;
    u64 nowNs = 1'000 * nsPerSecond;
    static constexpr u64 epochMs = 1'700'000'000'000;
    int left = unlimitedAllocations;
    std::optional<ParcelOutbox> outbox;
    std::optional<Account> account;
    std::optional<Wakeup> wakeup;
    std::optional<AnswerBox> answers;
    std::optional<FakeSink> engine, beside;
    std::optional<Courier> courier;
};

TEST_F(CourierTest, ARecordIsWhereTheAccountSaysItIs) {
    begin(2);
    push(3);
    EXPECT_EQ(columns(), " pushed=3 dropped=1 waiting=2 lost=3");
    EXPECT_EQ(step(), "[1-2] pushed=3 dropped=1 waiting=2 lost=3 +30000");
    EXPECT_EQ(beside->calls(), "1-2");
    engine->answer(2, Fate::Delivered);
    engine->answer(1, Fate::Failed, "too large");
    EXPECT_EQ(step(), "[] pushed=3 delivered=1 failed=1 dropped=1 lost=2 'too large'=1 idle");
    push(2);
    outbox->freeAndRemoveAllParcels();
    EXPECT_EQ(columns(), " pushed=5 delivered=1 failed=1 dropped=3 lost=4 'too large'=1");
}

TEST_F(CourierTest, AnAccountBeginsWithWhatTheOutboxHolds) {
    begin(2);
    push(4);
    TRACKED_DELETE(static_cast<AnalyticsParcel*>(outbox->popParcel(IParcelOutbox::KEL_ANALYTICS)));
    Account later(*outbox);
    EXPECT_EQ(columns(later.numbers()), " pushed=1 waiting=1 lost=1");
    AccountChange change;
    for (u64 reason = 0; reason < 34; ++reason) {
        change.fail(AccountChange::Hand, std::to_string(reason));
    }
    later.apply(change);
    EXPECT_EQ(later.numbers().failures.size(), 33U);
    EXPECT_EQ(later.numbers().failures["other"], 2U);
}

TEST_F(CourierTest, SendingGoesOnFromTheOldestRecordThatWasNotSettled) {
    begin();
    EXPECT_EQ(pushAndStep(5), "[1-5] pushed=5 waiting=5 lost=5 +30000");
    engine->purgesAtOnce = false;
    deliver(1, 1);
    engine->answer(3, Fate::TryAgain, "away");
    engine->answer(4, Fate::Failed, "no");
    EXPECT_EQ(step(), "[purge] pushed=5 delivered=1 failed=1 waiting=3 lost=4 'no'=1");
    EXPECT_EQ(step(60'000), "[] pushed=5 delivered=1 failed=1 waiting=3 lost=4 'no'=1")
        << "nothing is sent while records are in flight";
    EXPECT_EQ(pushAndStep(1), "[] pushed=6 delivered=1 failed=1 waiting=4 lost=5 'no'=1");
    engine->answer(5, Fate::TryAgain);
    deliver(2, 2);
    EXPECT_EQ(step(), "[] pushed=6 delivered=2 failed=1 waiting=3 lost=4 'no'=1 +100");
    EXPECT_EQ(step(99), "[] pushed=6 delivered=2 failed=1 waiting=3 lost=4 'no'=1 +1");
    EXPECT_EQ(step(1), "[3 5-6] pushed=6 delivered=2 failed=1 waiting=3 lost=4 'no'=1 +30000");
    EXPECT_EQ(stepDelivered(), "[] pushed=6 delivered=5 failed=1 lost=1 'no'=1 idle");
}

TEST_F(CourierTest, BackOffsDoubleUpToTheLongestUntilADelivery) {
    options.longestBackOff = std::chrono::milliseconds(300);
    int failures = 0;
    options.onFailure = [&] { ++failures; };
    begin();
    EXPECT_EQ(pushAndStep(2), "[1-2] pushed=2 waiting=2 lost=2 +30000");
    for (const u64 backOffMs : {100U, 200U, 300U, 300U}) {
        engine->answer(1, Fate::TryAgain, "away");
        EXPECT_EQ(step(), "[purge] pushed=2 waiting=2 lost=2 +" + std::to_string(backOffMs));
        EXPECT_EQ(step(backOffMs).substr(0, 5), "[1-2]");
    }
    deliver(1, 1);
    engine->answer(2, Fate::TryAgain, "away");
    EXPECT_EQ(step(), "[purge] pushed=2 delivered=1 waiting=1 lost=1 +100");
    courier->hurry();
    EXPECT_EQ(step(), "[2] pushed=2 delivered=1 waiting=1 lost=1 +30000");
    EXPECT_EQ(log.texts(WarnLevel), Lines{"engine takes no records: away\n"});
    EXPECT_EQ(stepDelivered(), "[] pushed=2 delivered=2 idle");
    pushAndStep(1);
    EXPECT_EQ(stepDelivered(), "[] pushed=3 delivered=3 idle");
    EXPECT_EQ(log.texts(WarnLevel),
              (Lines{"engine takes no records: away\n", "engine takes records again\n"}));
    for (const char* reason : {"no", ""}) {
        pushAndStep(1);
        engine->answerAll(Fate::Failed, reason);
        step();
    }
    EXPECT_EQ(columns(), " pushed=5 delivered=3 failed=2 lost=2 'no'=1 'no reason given'=1");
    EXPECT_EQ(failures, 2);
    EXPECT_EQ(log.texts(ErrorLevel), Lines{"a report is lost: no\n"});
}

TEST_F(CourierTest, WhatIsNotAnsweredInTimeIsGivenUp) {
    options.answerTimeout = std::chrono::milliseconds(500);
    begin();
    EXPECT_EQ(pushAndStep(2), "[1-2] pushed=2 waiting=2 lost=2 +500");
    deliver(1, 1);
    EXPECT_EQ(step(499), "[] pushed=2 delivered=1 waiting=1 lost=1 +1");
    EXPECT_EQ(step(1), "[purge] pushed=2 delivered=1 waiting=1 lost=1 +100");
    answers->answerOne(2, Fate::Delivered); // too late: it is not in flight
    EXPECT_EQ(step(100), "[2] pushed=2 delivered=1 waiting=1 lost=1 +500");
}

TEST_F(CourierTest, NoMoreIsTakenThanTheWindowHolds) {
    begin(10);
    for (std::size_t i = 0; i < ISink::maxRecords / 10; ++i) {
        pushAndStep(10);
    }
    EXPECT_EQ(outbox->size(), 0U);
    EXPECT_EQ(pushAndStep(10), "[8191-8192] pushed=8200 waiting=8200 lost=8200 +30000");
    EXPECT_EQ(pushAndStep(5), "[] pushed=8205 waiting=8205 lost=8205 +30000");
    EXPECT_EQ(outbox->size(), 5U);
    deliver(1, 10);
    EXPECT_EQ(step(), "[8193-8202] pushed=8205 delivered=10 waiting=8195 lost=8195 +30000");
    EXPECT_EQ(outbox->size(), 0U);
}

TEST_F(CourierTest, LargeRecordsFillTheWindowByTheirBytes) {
    begin();
    for (const char* text : {"[1]", "[2]", "[3]", "[4]"}) {
        EXPECT_EQ(pushAndStep(1, ISink::maxBytes / 4).substr(0, 3), text);
    }
    EXPECT_EQ(pushAndStep(1), "[] pushed=5 waiting=5 lost=5 +30000");
    EXPECT_EQ(outbox->size(), 1U);
    deliver(1, 1);
    EXPECT_EQ(step(), "[5] pushed=5 delivered=1 waiting=4 lost=4 +30000");
    engine->answerAll(Fate::TryAgain, "away");
    step();
    EXPECT_EQ(step(100), "[2-5] pushed=5 delivered=1 waiting=4 lost=4 +30000");
}

TEST_F(CourierTest, WhatSinksBesideLoseIsCountedBesideTheSum) {
    begin();
    beside->deliversAtOnce = false;
    pushAndStep(4);
    for (const auto& [sequence, fate, lines] : {std::tuple(1, Fate::Failed, 1U),
                                                {2, Fate::Failed, 1U},
                                                {3, Fate::Delivered, 1U},
                                                {4, Fate::Failed, 2U}}) {
        beside->answer(sequence, fate, "full");
        EXPECT_EQ(log.texts(ErrorLevel), Lines(lines, "the output loses records: full\n"));
    }
    EXPECT_EQ(stepDelivered(), "[] pushed=4 delivered=4 lost=3 idle");
}

TEST_F(CourierTest, TheAccountParcelStatesTheSumBeforeItself) {
    begin();
    account->addDiscarded();
    pushAndStep(2);
    engine->answer(1, Fate::Failed, "no");
    stepDelivered();
    courier->addAccount();
    EXPECT_EQ(step(), "[3] pushed=3 delivered=1 failed=1 waiting=1 lost=2 'no'=1 +30000");
    const auto record = nlohmann::json::parse(engine->lines().back());
    EXPECT_EQ(record["eventName"], "ForwardingAccountParcel");
    EXPECT_EQ(record["sequence"], 3);
    EXPECT_EQ(record["u64Entries"].dump(),
              R"({"delivered":1,"discarded":1,"dropped":0,"evicted":0,"failed":1,"failed: no":1,)"
              R"("outputLost":0,"pushed":2,"restored":0,"waiting":0})");
    EXPECT_EQ(stepDelivered(), "[] pushed=3 delivered=2 failed=1 lost=1 'no'=1 idle");
}

TEST_F(CourierTest, AnotherRunSendsWhatWaitsFirstInOrder) {
    useSpool();
    begin();
    pushAndStep(3);
    deliver(2, 2);
    EXPECT_EQ(step(), "[] pushed=3 delivered=1 waiting=2 +30000");
    const Lines lines = engine->lines();
    begin();
    EXPECT_EQ(pushAndStep(1), "[1 3 1] pushed=1 restored=2 waiting=3 +30000");
    EXPECT_EQ(engine->lines()[0] + engine->lines()[1], lines[0] + lines[2]);
    EXPECT_EQ(beside->calls(), "1") << "what was restored has been there";
    EXPECT_EQ(stepDelivered(), "[] pushed=1 restored=2 delivered=3 idle");
    begin();
    EXPECT_EQ(step(), "[] idle");
}

TEST_F(CourierTest, WhatTheWindowHasNoRoomForIsReadFromTheSpoolInOrder) {
    useSpool();
    begin();
    pushAndStep(ISink::maxRecords + 5);
    EXPECT_EQ(pushAndStep(5), "[] pushed=8202 waiting=8202 +30000");
    deliver(1, ISink::maxRecords);
    EXPECT_EQ(step(), "[8193-8202] pushed=8202 delivered=8192 waiting=10 +30000");
    EXPECT_EQ(pushAndStep(1), "[8203] pushed=8203 delivered=8192 waiting=11 +30000");
    EXPECT_EQ(stepDelivered(), "[] pushed=8203 delivered=8203 idle");
}

// About 1500 bytes a record.
TEST_F(CourierTest, EvictionTakesTheOldestIsRecordedAndTold) {
    useSpool(6'500);
    options.hostId = "here";
    begin();
    pushAndStep(2, 1'000);
    engine->answerAll(Fate::TryAgain, "away");
    step();
    EXPECT_EQ(pushAndStep(6, 1'000), "[] pushed=8 evicted=4 waiting=4 lost=4 +100");
    EXPECT_EQ(step(100), "[5-8] pushed=8 evicted=4 waiting=4 lost=4 +30000");
    begin();
    EXPECT_EQ(step(), "[5-8] restored=4 waiting=4 +30000");
    deliver(5, 5);
    EXPECT_EQ(step(), "[1] pushed=1 restored=4 delivered=1 waiting=4 +30000");
    const auto told = nlohmann::json::parse(engine->lines().back());
    EXPECT_EQ(told["eventName"], "RecordsEvictedParcel");
    EXPECT_EQ(told["stringEntries"]["host"], "here");
    EXPECT_EQ(told["stringEntries"]["boot"],
              nlohmann::json::parse(engine->lines().front())["boot"]);
    EXPECT_EQ(told["u64Entries"].dump(), R"({"count":4,"first":1,"last":4})");
    EXPECT_EQ(stepDelivered(), "[] pushed=1 restored=4 delivered=5 idle");
    pushAndStep(5, 1'000);
    EXPECT_EQ(stepDelivered(), "[] pushed=6 restored=4 delivered=9 evicted=1 lost=1 +1000 idle");
    EXPECT_EQ(step(999).substr(0, 2), "[]");
    EXPECT_EQ(step(1).substr(0, 3), "[7]");
    EXPECT_EQ(stepDelivered(), "[] pushed=7 restored=4 delivered=10 evicted=1 lost=1 idle");
}

TEST_F(CourierTest, ARecordThatIsEvictedInFlightHasTheFateOfItsAnswer) {
    useSpool(3'500);
    begin();
    pushAndStep(2, 1'000);
    EXPECT_EQ(pushAndStep(2, 1'000), "[3-4] pushed=4 waiting=4 lost=2 +30000");
    EXPECT_EQ(account->numbers().inSpool, 2U);
    deliver(1, 1);
    engine->answer(2, Fate::TryAgain, "away");
    EXPECT_EQ(step(), "[purge] pushed=4 delivered=1 evicted=1 waiting=2 lost=1 +100");
}

TEST_F(CourierTest, ASpoolThatCannotBeWrittenIsTriedAgain) {
    useSpool();
    begin();
    {
        const FileSizeLimit limit(0);
        EXPECT_EQ(pushAndStep(1), "[] pushed=1 waiting=1 lost=1 +1000")
            << "nothing is sent before its commit";
        EXPECT_EQ(beside->calls(), "");
        EXPECT_EQ(pushAndStep(1), "[] pushed=2 waiting=2 lost=2 +1000");
        EXPECT_EQ(outbox->size(), 1U) << "what comes meanwhile is not taken";
    }
    EXPECT_EQ(step(999), "[] pushed=2 waiting=2 lost=2 +1");
    EXPECT_EQ(step(1), "[1-2] pushed=2 waiting=2 +30000");
    EXPECT_EQ(beside->calls(), "1-2");
    {
        const FileSizeLimit limit(0);
        EXPECT_EQ(stepDelivered(), "[] pushed=2 delivered=2 +1000") << "the spool does not know it";
    }
    courier->hurry();
    EXPECT_EQ(step(), "[] pushed=2 delivered=2 idle");
}

// Larger than what SQLite keeps in memory.
TEST_F(CourierTest, WhatWasEvictedInFlightIsNotKeptAfterDamage) {
    useSpool(5'000'000);
    begin();
    pushAndStep(2, 2'000'000);
    pushAndStep(2, 2'000'000);
    damageSpool();
    deliver(3, 3);
    EXPECT_EQ(step(), "[] pushed=4 delivered=1 waiting=3 lost=2 +30000");
    begin();
    EXPECT_EQ(step(), "[4] restored=1 waiting=1 +30000");
}

TEST_F(CourierTest, ASpoolThatIsDamagedIsPutAsideAndWhatIsInMemoryGoesOn) {
    useSpool();
    begin();
    pushAndStep(ISink::maxRecords + 5'000, 1'000);
    damageSpool();
    deliver(1, ISink::maxRecords - 10);
    EXPECT_EQ(step(), "[] pushed=13192 delivered=8182 failed=5000 waiting=10 lost=5000 'the spool "
                      "was damaged'=5000 +30000");
    EXPECT_TRUE(std::filesystem::exists(folder / "spool.damaged-1"));
    EXPECT_EQ(pushAndStep(1), "[13193] pushed=13193 delivered=8182 failed=5000 waiting=11 "
                              "lost=5000 'the spool was damaged'=5000 +30000");
    begin();
    EXPECT_EQ(step(), "[8183-8192 13193] restored=11 waiting=11 +30000");
}

struct PoorRow {
    u64 spoolBytes;  // 0: none
    bool isRestored; // the records are in the spool at the start
    u64 first;       // sequence of the record that the engine sends back
    const char* outcome;
};
const std::vector<PoorRow> poorRows = {
    {0, false, 1, "[1-5 purge 1-6] pushed=6 delivered=5 failed=1 lost=1, beside 1-6"},
    {1U << 20U, false, 1, "[1-5 purge 1-6] pushed=6 delivered=5 failed=1 lost=1, beside 1-6"},
    {1'200, false, 4, "[4-5 purge 4-7] pushed=7 delivered=3 failed=1 evicted=3 lost=4, beside 1-7"},
    {1U << 20U, true, 1,
     "[1-5 purge 1-5 1] pushed=1 restored=5 delivered=5 failed=1 lost=1, beside 1"}};

// The engine sends one record back, and refuses the fifth for good.
TEST_F(CourierTest, AStepGoesOnWhereAnotherRanOutOfMemory) {
    for (const PoorRow& row : poorRows) {
        if (row.spoolBytes > 0) {
            useSpool(row.spoolBytes);
        }
        failEachAllocation([&] {
            push(5);
            if (row.isRestored) {
                step();
                begin();
            }
            int round = 0;
            const auto answer = [&] {
                if (++round == 1) {
                    return engine->answer(row.first, Fate::TryAgain, "a reason of some length");
                }
                if (round == 2) {
                    engine->answer(5, Fate::Failed, "a reason of some length");
                }
                engine->answerAll(Fate::Delivered);
            };
            runUntilIdle(answer);
            courier->addAccount();
            runUntilIdle(answer);
            EXPECT_EQ("[" + engine->calls() + "]" + columns(account->numbers()) + ", beside " +
                          beside->calls(),
                      row.outcome);
            for (const std::string& line : engine->lines()) {
                EXPECT_TRUE(holds(line, R"("forwardedAt":"2023-11-14T22:13:20.000Z")"));
            }
        });
    }
}

TEST_F(CourierTest, AnEndAfterAStepThatRanOutOfMemoryLeaksNothing) {
    failEachAllocation([&] {
        push(5);
        poorStep();
    });
}

// The wake-up that the answer was worth went to a step that had others to settle first.
TEST_F(CourierTest, AnAnswerAfterAStepThatRanOutOfMemoryIsSettled) {
    failEachAllocation([&] {
        push(2);
        step();
        engine->answer(1, Fate::TryAgain);
        wakeup->waitUntil(0);
        poorStep();
        engine->answerAll(Fate::TryAgain);
        runUntilIdle([&] { engine->answerAll(Fate::Delivered); });
    });
}

} // namespace
