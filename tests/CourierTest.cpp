#include "host/forwarding/Courier.h"

#include "common/infra/IParcelOutbox.h"
#include "host/services/Clock.h"
#include "host/services/MemLedger.h"
#include "host/testing/FakeSink.h"
#include "host/testing/LogText.h"
#include "tests/support/Examples.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Files.h"

namespace {

class CourierTest : public testing::Test {
protected:
    // A run of the process: what is in memory is gone with its end.
    struct Run {
        explicit Run(const ForwarderOptions& options)
            : courier(account, answers, engine, {&beside}, options) {
            beside.deliversAtOnce = true;
        }
        ParcelOutbox outbox{20'000};
        Account account{outbox};
        Wakeup wakeup;
        AnswerBox answers{wakeup};
        FakeSink engine, beside;
        Courier courier;
    };

    void TearDown() override {
        run.reset();
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }
    void useSpool(u64 limitBytes) { options.spool = SpoolOptions{folder / "spool", limitBytes}; }
    // Steps as the forwarder's thread does, when one is due or after a wake-up.
    u64 step() {
        u64 nextNs = nowNs;
        for (int i = 0; (run->wakeup.waitUntil(0) || nextNs <= nowNs) && i < 20; ++i) {
            nextNs = oneStep();
        }
        return nextNs;
    }
    // It alone can run out of memory, and the account adds up after it.
    u64 oneStep() {
        u64 nextNs = nowNs;
        allocationsLeft = left;
        try {
            nextNs = run->courier.step(nowNs, epochMs);
        } catch (const std::bad_alloc&) { // the next step goes on
        }
        left = std::exchange(allocationsLeft, unlimitedAllocations);
        EXPECT_TRUE(run->account.numbers().addsUp()) << run->account.numbers().text();
        return nextNs;
    }

    // A row of a story is what happens, an arrow, and what holds after a step: what the engine was
    // called since the row before, the account, when the next step is due, what the outbox holds.
    // Or it is a question and its answer. An indented line goes on with the row above.
    void follow(const std::string& text) {
        const std::string story = std::regex_replace(text, std::regex("\n +"), " ");
        std::istringstream rows(story);
        std::string happened;
        for (std::string row; std::getline(rows, row);) {
            const std::string acts = row.substr(0, row.find("=>"));
            happened += acts + "=> " + outcomeOf(acts) + "\n";
        }
        EXPECT_EQ(happened, story);
    }
    // Follows it with the first allocation of its steps failing, with the second, and so on until
    // none fails.
    void followWithoutMemory(const std::string& story) {
        int allocations = 0;
        for (; left == unlimitedAllocations && !HasFailure(); ++allocations) {
            SCOPED_TRACE("after " + std::to_string(allocations) + " allocations");
            left = allocations;
            follow(story);
            for (const std::string& line : run->engine.lines()) {
                EXPECT_TRUE(holds(line, R"("forwardedAt":"2023-11-14T22:13:20.000Z")"));
            }
        }
        left = unlimitedAllocations;
        EXPECT_GE(allocations, 2);
    }
    std::string outcomeOf(const std::string& acts) {
        // "step", "push 3", "push 3*1000" with texts of so many bytes, "delivered 1-3"
        const std::regex form("([a-z]+)(?: ([0-9]+))?(?:[*-]([0-9]+))?");
        for (std::sregex_iterator each(acts.begin(), acts.end(), form), end; each != end; ++each) {
            if (each->str(1) == "beside") {
                return "[" + run->beside.calls() + "]";
            }
            act(each->str(1), std::stoull("0" + each->str(2)), std::stoull("0" + each->str(3)));
        }
        const u64 nextNs = step();
        return "[" + run->engine.calls() + "]" + columns(run->account.numbers()) +
               (nextNs == Wakeup::never ? "" : " +" + std::to_string((nextNs - nowNs) / nsPerMs)) +
               (run->outbox.size() == 0 ? "" : " outbox=" + std::to_string(run->outbox.size())) +
               (run->courier.isIdle() ? " idle" : "");
    }
    void act(const std::string& act, u64 first, u64 second) {
        const auto answer = [&](Fate fate, const char* reason) {
            for (u64 sequence = first; sequence <= std::max(first, second); ++sequence) {
                run->engine.answer(sequence, fate, reason);
            }
        };
        const std::map<std::string, std::function<void()>> acts = {
            {"spool", [&] { useSpool(first); }},
            {"begin", [&] { run.emplace(options); }},
            {"step", [&] { step(); }},
            {"once", [&] { oneStep(); }},
            {"push", [&] { pushTexts(run->outbox, first, second); }},
            {"after", [&] { nowNs += first * nsPerMs; }},
            {"hurry", [&] { run->courier.hurry(); }},
            {"delivered", [&] { answer(Fate::Delivered, ""); }},
            {"mute", [&] { run->engine.purgesAtOnce = false; }},
            {"late", [&] { run->answers.answerOne(first, Fate::Delivered); }}, // not in flight
            {"back", [&] { answer(Fate::TryAgain, "away"); }},
            {"failed", [&] { answer(Fate::Failed, "no"); }},
            {"refused", [&] { answer(Fate::Failed, "16 or more chars"); }},
            {"silent", [&] { answer(Fate::Failed, ""); }},
            {"discard", [&] { run->account.addDiscarded(); }},
            {"account", [&] { run->courier.addAccount(); }},
            {"full", [&] { fullDisk.emplace(0); }},
            {"free", [&] { fullDisk.reset(); }},
            {"damage", [&] {
                 for (const char* file : {"spool", "spool-wal"}) { // overwritten as they are open
                     const std::string garbage(std::filesystem::file_size(folder / file), 'x');
                     std::fstream(folder / file, std::ios::in | std::ios::out) << garbage;
                 }
             }}};
        acts.at(act)();
    }
    // What is not 0, such as " pushed=2 waiting=2", and why what failed has.
    static std::string columns(const AccountNumbers& numbers) {
        std::istringstream words(numbers.text() + " lost=" + std::to_string(numbers.lost()));
        std::string text;
        for (std::string word; words >> word;) {
            text += word.substr(word.find('=')) == "=0" ? "" : " " + word;
        }
        for (const auto& [reason, count] : numbers.failures) {
            text += " '" + reason + "'=" + std::to_string(count);
        }
        return text;
    }

    RecordingLog log;
    const MemReport before = MemLedger::report();
    const TempFolder folder;
    ForwarderOptions options;
    u64 nowNs = 1'000 * nsPerSecond;
    static constexpr u64 epochMs = 1'700'000'000'000;
    int left = unlimitedAllocations;
    std::optional<FileSizeLimit> fullDisk;
    std::optional<Run> run;
};

TEST_F(CourierTest, AnAccountBeginsWithWhatTheOutboxHolds) {
    ParcelOutbox outbox(2);
    pushTexts(outbox, 3);
    TRACKED_DELETE(static_cast<AnalyticsParcel*>(outbox.popParcel(IParcelOutbox::KEL_ANALYTICS)));
    outbox.freeAndRemoveAllParcels();
    pushTexts(outbox, 1);
    Account later(outbox);
    pushTexts(outbox, 2);
    EXPECT_EQ(columns(later.numbers()), " pushed=3 dropped=1 waiting=2 lost=3");
    outbox.freeAndRemoveAllParcels();
    EXPECT_EQ(columns(later.numbers()), " pushed=3 dropped=3 lost=3");
    AccountChange change;
    for (u64 reason = 0; reason < 34; ++reason) {
        change.fail(AccountChange::Hand, std::to_string(reason));
    }
    later.apply(change);
    later.apply(change); // with reasons that are known
    EXPECT_EQ(later.numbers().failures["other"], 4U);
}

TEST_F(CourierTest, SendingGoesOnFromTheOldestRecordThatWasNotSettled) {
    followWithoutMemory(R"(begin mute push 5 => [1-5] pushed=5 waiting=5 lost=5 +30000
delivered 1 back 3 failed 4 => [purge] pushed=5 delivered=1 failed=1 waiting=3 lost=4 'no'=1
push 1 after 60000 => [] pushed=6 delivered=1 failed=1 waiting=4 lost=5 'no'=1
back 5 delivered 2 => [] pushed=6 delivered=2 failed=1 waiting=3 lost=4 'no'=1 +100
after 100 => [3 5-6] pushed=6 delivered=2 failed=1 waiting=3 lost=4 'no'=1 +30000
delivered 3 delivered 5-6 => [] pushed=6 delivered=5 failed=1 lost=1 'no'=1 idle
beside => [1-6]
push 2 step back 7 step hurry step back 8 step back 7-8
    => [7-8 purge 7-8 purge] pushed=8 delivered=5 failed=1 waiting=2 lost=3 'no'=1 +200
)");
}

TEST_F(CourierTest, BackOffsDoubleUpToTheLongestUntilADelivery) {
    options.longestBackOff = std::chrono::milliseconds(350);
    int failures = 0;
    options.onFailure = [&] { ++failures; };
    follow(R"(begin push 2 step hurry back 1-2 => [1-2 purge] pushed=2 waiting=2 lost=2 +100
after 100 step back 1-2 => [1-2 purge] pushed=2 waiting=2 lost=2 +200
after 200 step back 1-2 => [1-2 purge] pushed=2 waiting=2 lost=2 +350
after 350 step delivered 1 back 2 => [1-2 purge] pushed=2 delivered=1 waiting=1 lost=1 +100
hurry step back 2 step hurry => [2 purge 2] pushed=2 delivered=1 waiting=1 lost=1 +30000
delivered 2 => [] pushed=2 delivered=2 idle
push 1 step delivered 3 => [3] pushed=3 delivered=3 idle
push 1 step failed 4 => [4] pushed=4 delivered=3 failed=1 lost=1 'no'=1 idle
push 1 step silent 5 => [5] pushed=5 delivered=3 failed=2 lost=2 'no'=1 'no reason given'=1 idle
)");
    EXPECT_EQ(toBriefText(log), R"(common warn giveUp "engine takes no records: away\n"
common warn noteDelivery "engine takes records again\n"
common error noteFailure "a report is lost: no\n"
)");
    EXPECT_EQ(failures, 2);
}

TEST_F(CourierTest, WhatIsNotAnsweredInTimeIsGivenUp) {
    options.answerTimeout = std::chrono::milliseconds(500);
    follow(R"(begin push 2 => [1-2] pushed=2 waiting=2 lost=2 +500
delivered 1 after 499 => [] pushed=2 delivered=1 waiting=1 lost=1 +1
after 1 => [purge] pushed=2 delivered=1 waiting=1 lost=1 +100
late 2 after 100 => [2] pushed=2 delivered=1 waiting=1 lost=1 +500
)");
}

// Four large ones fill the window by their bytes.
TEST_F(CourierTest, NoMoreIsTakenAndSentThanTheWindowHolds) {
    follow(R"(begin push 8190 step push 10 step push 5
    => [1-8192] pushed=8205 waiting=8205 lost=8205 +30000 outbox=5
delivered 1-10 => [8193-8202] pushed=8205 delivered=10 waiting=8195 lost=8195 +30000
begin push 3*4194304 step push 1*4194304 step push 1
    => [1-4] pushed=5 waiting=5 lost=5 +30000 outbox=1
delivered 1 => [5] pushed=5 delivered=1 waiting=4 lost=4 +30000
back 2-5 step after 100 => [purge 2-5] pushed=5 delivered=1 waiting=4 lost=4 +30000
)");
}

TEST_F(CourierTest, WhatSinksBesideLoseIsCountedBesideTheSum) {
    run.emplace(options);
    run->beside.deliversAtOnce = false;
    for (const Fate fate : {Fate::Failed, Fate::Failed, Fate::Delivered, Fate::Failed}) {
        run->beside.onSend = [this, fate] { run->beside.answerAll(fate, "full"); };
        pushTexts(run->outbox, 1);
        step();
    }
    follow("delivered 1-4 => [1-4] pushed=4 delivered=4 lost=3 idle\n");
    EXPECT_EQ(log.texts(ErrorLevel),
              std::vector<std::string>(2, "the output loses records: full\n"));
}

TEST_F(CourierTest, AnotherRunSendsWhatWaitsFirstInOrder) {
    followWithoutMemory(R"(spool 64000000 begin push 6 step delivered 2
    => [1-6] pushed=6 delivered=1 waiting=5 +30000
begin push 1 => [1 3-6 1] pushed=1 restored=5 waiting=6 +30000
beside => [1]
delivered 1 delivered 3-6 delivered 1 => [] pushed=1 restored=5 delivered=6 idle
)");
}

TEST_F(CourierTest, WhatTheWindowHasNoRoomForIsReadFromTheSpoolInOrder) {
    follow(R"(spool 64000000 begin push 8197 step push 8205
    => [1-8192] pushed=16402 waiting=16402 +30000
delivered 1-8192 => [8193-16384] pushed=16402 delivered=8192 waiting=8210 +30000
delivered 8193-16384 => [16385-16402] pushed=16402 delivered=16384 waiting=18 +30000
push 1 delivered 16385-16402 => [16403] pushed=16403 delivered=16402 waiting=1 +30000
)");
}

// About 1500 bytes a record.
TEST_F(CourierTest, EvictionTakesTheOldestIsRecordedAndTold) {
    options.hostId = "here";
    follow(R"(spool 6500 begin push 1 step delivered 1 step push 8*1000
    => [1 6-9] pushed=9 delivered=1 evicted=4 waiting=4 lost=4 +30000
begin => [6-9] restored=4 waiting=4 +30000
delivered 6 => [1] pushed=1 restored=4 delivered=1 waiting=4 +30000
delivered 7-9 delivered 1 => [] pushed=1 restored=4 delivered=5 idle
push 5*1000 step delivered 3-6
    => [3-6] pushed=6 restored=4 delivered=9 evicted=1 lost=1 +1000 idle
push 1 step back 7 step after 1000
    => [7 purge 7] pushed=7 restored=4 delivered=9 evicted=1 waiting=1 lost=1 +30000
delivered 7 => [8] pushed=8 restored=4 delivered=10 evicted=1 waiting=1 lost=1 +30000
delivered 8 => [] pushed=8 restored=4 delivered=11 evicted=1 lost=1 idle
)");
    const std::vector<std::string> lines = run->engine.lines();
    const std::string boot = lines[0].substr(lines[0].find(R"("boot":)"), 25); // 16 digits
    EXPECT_TRUE(holds(lines[4], R"("eventName":"RecordsEvictedParcel")"));
    EXPECT_TRUE(holds(lines[4], R"("stringEntries":{)" + boot +
                                    R"(,"host":"here"},"u32Entries":{},)"
                                    R"("u64Entries":{"count":4,"first":2,"last":5})"));
}

TEST_F(CourierTest, ASpoolThatCannotBeWrittenIsTriedAgain) {
    follow(R"(spool 64000000 begin full push 1 => [] pushed=1 waiting=1 lost=1 +1000
push 1 => [] pushed=2 waiting=2 lost=2 +1000 outbox=1
beside => []
free after 999 => [] pushed=2 waiting=2 lost=2 +1 outbox=1
after 1 => [1-2] pushed=2 waiting=2 +30000
beside => [1-2]
full delivered 1-2 => [] pushed=2 delivered=2 +1000
free hurry => [] pushed=2 delivered=2 idle
)");
}

// Larger than what SQLite keeps in memory.
TEST_F(CourierTest, ARecordThatIsEvictedInFlightHasTheFateOfItsAnswerAndIsNotKept) {
    follow(R"(spool 5000000 begin push 2*2000000 step push 2*2000000 step damage delivered 3
    => [1-4] pushed=4 delivered=1 waiting=3 lost=2 +30000
delivered 1 back 2 => [purge] pushed=4 delivered=2 evicted=1 waiting=1 lost=1 +100
begin => [4] restored=1 waiting=1 +30000
)");
}

TEST_F(CourierTest, WhatIsInMemoryGoesOnAfterDamage) {
    follow(R"(spool 64000000 begin push 13192*1000 step damage delivered 1-8182 step push 1
    => [1-8192 13193] pushed=13193 delivered=8182 failed=5000 waiting=11 lost=5000
    'the spool was damaged'=5000 +30000
begin => [8183-8192 13193] restored=11 waiting=11 +30000
)");
    EXPECT_FALSE(std::filesystem::exists(folder / "spool.damaged-2")) << "put aside twice";
}

// The wake-up for the second answer goes to a step that has the first one to settle.
TEST_F(CourierTest, AStepGoesOnWhereAnotherRanOutOfMemoryAndAnEndLeaksNothing) {
    followWithoutMemory(R"(begin push 2 => [1-2] pushed=2 waiting=2 lost=2 +30000
refused 1 once delivered 2 => [] pushed=2 delivered=1 failed=1 lost=1 '16 or more chars'=1 idle
push 2 once begin => [] idle
)");
}

// What was evicted may be told a second later where there was no memory.
TEST_F(CourierTest, TheAccountParcelStatesTheSumBeforeItself) {
    followWithoutMemory(R"(spool 1700 begin discard push 5
    => [3-5] pushed=5 evicted=2 waiting=3 lost=2 +30000
back 4 => [purge] pushed=5 evicted=2 waiting=3 lost=2 +100
after 100 step delivered 3-4 refused 5 step after 1000 step delivered 6
    => [3-6] pushed=6 delivered=3 failed=1 evicted=2 lost=3 '16 or more chars'=1 idle
account step delivered 7
    => [7] pushed=7 delivered=4 failed=1 evicted=2 lost=3 '16 or more chars'=1 idle
beside => [1-7]
)");
    EXPECT_TRUE(holds(run->engine.lines()[7],
                      R"("u64Entries":{"delivered":3,"discarded":1,"dropped":0,"evicted":2,)"
                      R"("failed":1,"failed: 16 or more chars":1,"outputLost":0,"pushed":6,)"
                      R"("restored":0,"waiting":0})"));
}

} // namespace
