#include "host/forwarding/Courier.h"

#include "common/infra/IParcelOutbox.h"
#include "host/services/Clock.h"
#include "host/services/MemLedger.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/ScriptedSink.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>

namespace {

constexpr auto analytics = IParcelOutbox::KEL_ANALYTICS;

class CourierTest : public testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directory(folder); }
    void TearDown() override {
        end();
        std::filesystem::remove_all(folder);
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }

    void useSpool(u64 limitBytes = 1U << 20U) {
        options.spool = SpoolOptions{folder + "/spool", limitBytes};
    }
    // A run of the process: what is in memory is gone with its end.
    void begin(u64 outboxSize = 100) {
        end();
        outbox.emplace(outboxSize);
        account.emplace(*outbox);
        wakeup.emplace();
        answers.emplace(*wakeup);
        engine.emplace();
        beside.emplace();
        beside->deliversAtOnce = true;
        courier.emplace(*account, *answers, *engine, std::vector<ISink*>{&*beside}, options);
    }
    void end() { courier.reset(); }

    void push(u64 count, std::size_t textSize = 0) {
        for (u64 i = 0; i < count; ++i) {
            auto* parcel = TRACKED_NEW(AnalyticsParcel)();
            parcel->setText(std::string(textSize, 'x'));
            outbox->pushParcel(parcel, analytics);
        }
    }
    // Steps until nothing changes; the account adds up after each.
    u64 step(u64 afterMs = 0) {
        nowNs += afterMs * nsPerMs;
        u64 nextNs = 0;
        for (int i = 0; i < 4; ++i) {
            nextNs = courier->step(nowNs, 1'700'000'000'000);
            EXPECT_TRUE(account->numbers().addsUp()) << account->numbers().text();
        }
        return nextNs == Wakeup::never ? nextNs : (nextNs - nowNs) / nsPerMs;
    }
    // The columns that are not 0, such as "pushed=2 waiting=2".
    std::string columns() const {
        std::string text = account->numbers().text() + " ";
        for (std::size_t zero = 0; (zero = text.find("=0 ")) != std::string::npos;) {
            const std::size_t name = text.rfind(' ', zero);
            text.erase(name == std::string::npos ? 0 : name + 1,
                       zero + 3 - (name == std::string::npos ? 0 : name + 1));
        }
        return text.empty() ? text : text.substr(0, text.size() - 1);
    }
    void deliver(u64 first, u64 last) {
        for (u64 sequence = first; sequence <= last; ++sequence) {
            engine->answer(sequence, Fate::Delivered);
        }
    }

    // Bytes that files may have; nothing: no limit.
    static void limitFiles(std::optional<rlim_t> bytes) {
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = bytes.value_or(limit.rlim_max);
        setrlimit(RLIMIT_FSIZE, &limit);
        static_cast<void>(std::signal(SIGXFSZ, bytes ? SIG_IGN : SIG_DFL));
    }
    // Overwrites all of the spool.
    void damageSpool() const {
        for (const std::string& file : {folder + "/spool", folder + "/spool-wal"}) {
            const std::string garbage(std::filesystem::file_size(file), 'x');
            std::fstream(file, std::ios::in | std::ios::out) << garbage;
        }
    }

    RecordingLog log;
    const MemReport before = MemLedger::report();
    const std::string folder = testing::TempDir() + "courier." + std::to_string(getpid());
    ForwarderOptions options;
    u64 nowNs = 1'000 * nsPerSecond;
    std::optional<ParcelOutbox> outbox;
    std::optional<Account> account;
    std::optional<Wakeup> wakeup;
    std::optional<AnswerBox> answers;
    std::optional<ScriptedSink> engine, beside;
    std::optional<Courier> courier;
};

TEST_F(CourierTest, ARecordIsWhereTheAccountSaysItIs) {
    begin(2);
    push(3);
    EXPECT_EQ(columns(), "pushed=3 dropped=1 waiting=2");
    step();
    EXPECT_EQ(engine->sent(), "1 2");
    EXPECT_EQ(beside->sent(), "1 2");
    EXPECT_EQ(columns(), "pushed=3 dropped=1 waiting=2");
    EXPECT_FALSE(courier->isIdle());
    engine->answer(2, Fate::Delivered);
    engine->answer(1, Fate::Failed, "too large");
    step();
    EXPECT_EQ(columns(), "pushed=3 delivered=1 failed=1 dropped=1");
    EXPECT_EQ(account->numbers().failures.at("too large"), 1U);
    EXPECT_TRUE(courier->isIdle());
    EXPECT_EQ(account->numbers().lost(), 2U);
}

TEST_F(CourierTest, WhatTheOutboxFreesIsDropped) {
    begin();
    push(2);
    outbox->freeAndRemoveAllParcels();
    EXPECT_EQ(columns(), "pushed=2 dropped=2");
}

TEST_F(CourierTest, AnAccountBeginsWithWhatTheOutboxHolds) {
    begin(2);
    push(4);
    TRACKED_DELETE(static_cast<AnalyticsParcel*>(outbox->popParcel(analytics)));
    const AccountNumbers numbers = Account(*outbox).numbers();
    outbox.reset();
    EXPECT_EQ(numbers.text(),
              "pushed=1 restored=0 delivered=0 failed=0 dropped=0 evicted=0 waiting=1");
}

TEST_F(CourierTest, SendingGoesOnFromTheOldestRecordThatWasNotSettled) {
    begin();
    push(5);
    step();
    engine->purgesAtOnce = false;
    EXPECT_EQ(engine->sent(), "1 2 3 4 5");
    deliver(1, 1);
    engine->answer(3, Fate::TryAgain, "away");
    engine->answer(4, Fate::Failed, "no");
    step();
    EXPECT_EQ(engine->purges, 1);
    step(60'000);
    push(1);
    EXPECT_EQ(step(), Wakeup::never) << "nothing is sent while records are in flight";
    EXPECT_EQ(engine->sent(), "");
    engine->answer(5, Fate::TryAgain);
    deliver(2, 2);
    EXPECT_EQ(step(), 100U);
    EXPECT_EQ(step(99), 1U);
    EXPECT_EQ(engine->sent(), "");
    step(1);
    EXPECT_EQ(engine->sent(), "3 5 6");
    EXPECT_EQ(engine->purges, 1);
    engine->answerAll(Fate::Delivered);
    step();
    EXPECT_EQ(columns(), "pushed=6 delivered=5 failed=1");
}

TEST_F(CourierTest, BackOffsDoubleUpToTheLongestUntilADelivery) {
    options.longestBackOff = std::chrono::milliseconds(300);
    begin();
    push(2);
    for (const u64 backOffMs : {100U, 200U, 300U, 300U}) {
        step();
        engine->answer(1, Fate::TryAgain, "away");
        EXPECT_EQ(step(), backOffMs);
        nowNs += backOffMs * nsPerMs;
    }
    step();
    deliver(1, 1);
    engine->answer(2, Fate::TryAgain, "away");
    EXPECT_EQ(step(), 100U);
    courier->hurry();
    step();
    EXPECT_EQ(engine->sent().substr(0, 1), "1");
    EXPECT_EQ(log.texts(WarnLevel), std::vector<std::string>{"engine takes no records: away\n"});
    deliver(2, 2);
    step();
    EXPECT_EQ(log.texts(WarnLevel).back(), "engine takes records again\n");
}

TEST_F(CourierTest, WhatIsNotAnsweredInTimeIsGivenUp) {
    options.answerTimeout = std::chrono::milliseconds(500);
    begin();
    push(2);
    EXPECT_EQ(step(), 500U);
    deliver(1, 1);
    EXPECT_EQ(step(499), 1U);
    EXPECT_EQ(engine->purges, 0);
    step(1);
    EXPECT_EQ(engine->purges, 1);
    step(100);
    EXPECT_EQ(engine->sent(), "1 2 2");
}

TEST_F(CourierTest, NoMoreIsTakenThanTheWindowHolds) {
    begin(10);
    for (std::size_t i = 0; i < ISink::maxRecords / 10; ++i) {
        push(10);
        step();
    }
    const std::size_t inHand = ISink::maxRecords / 10 * 10;
    EXPECT_EQ(outbox->size(), 0U);
    push(10);
    step();
    push(5);
    step();
    EXPECT_EQ(outbox->size(), 5U);
    engine->sent();
    deliver(1, 10);
    step();
    EXPECT_EQ(outbox->size(), 0U);
    EXPECT_EQ(engine->sent().substr(0, 4), std::to_string(ISink::maxRecords + 1));
    EXPECT_EQ(account->numbers().waiting, inHand + 5);
}

TEST_F(CourierTest, LargeRecordsFillTheWindowByTheirBytes) {
    begin();
    const std::size_t size = ISink::maxBytes / 4;
    for (int i = 0; i < 4; ++i) {
        push(1, size);
        step();
    }
    push(1);
    step();
    EXPECT_EQ(engine->sent(), "1 2 3 4");
    EXPECT_EQ(outbox->size(), 1U);
    deliver(1, 1);
    step();
    EXPECT_EQ(engine->sent(), "5");
}

TEST_F(CourierTest, WhatSinksBesideLoseIsCountedBesideTheSum) {
    begin();
    beside->deliversAtOnce = false;
    push(3);
    step();
    engine->answerAll(Fate::Delivered);
    beside->answer(1, Fate::Delivered);
    beside->answer(2, Fate::Failed, "full");
    beside->answer(3, Fate::Failed, "full");
    step();
    EXPECT_EQ(columns(), "pushed=3 delivered=3");
    EXPECT_EQ(account->numbers().outputLost, 2U);
    EXPECT_EQ(account->numbers().lost(), 2U);
    EXPECT_EQ(log.texts(ErrorLevel), std::vector<std::string>{"the output loses records: full\n"});
}

TEST_F(CourierTest, TheAccountParcelStatesTheSumBeforeItself) {
    begin();
    push(2);
    account->addDiscarded();
    step();
    engine->answer(1, Fate::Failed, "no");
    engine->answerAll(Fate::Delivered);
    step();
    courier->addAccount();
    step();
    const auto record = nlohmann::json::parse(engine->stored.back());
    EXPECT_EQ(record["eventName"], "ForwardingAccountParcel");
    EXPECT_EQ(record["sequence"], 3);
    EXPECT_EQ(record["u64Entries"].dump(),
              R"({"delivered":1,"discarded":1,"dropped":0,"evicted":0,"failed":1,"failed: no":1,)"
              R"("outputLost":0,"pushed":2,"restored":0,"waiting":0})");
    engine->answerAll(Fate::Delivered);
    step();
    EXPECT_EQ(columns(), "pushed=3 delivered=2 failed=1");
}

TEST_F(CourierTest, AnotherRunSendsWhatWaitsFirstInOrder) {
    useSpool();
    begin();
    push(3);
    step();
    deliver(2, 2);
    step();
    EXPECT_EQ(columns(), "pushed=3 delivered=1 waiting=2");
    EXPECT_EQ(account->numbers().lost(), 0U);
    const std::vector<std::string> lines = engine->stored;
    begin();
    push(1);
    EXPECT_EQ(columns(), "pushed=1 restored=2 waiting=3");
    step();
    EXPECT_EQ(engine->sent(), "1 3 1");
    EXPECT_EQ(engine->stored[0] + engine->stored[1], lines[0] + lines[2]);
    EXPECT_EQ(beside->sent(), "1") << "what was restored has been there";
    engine->answerAll(Fate::Delivered);
    step();
    EXPECT_EQ(columns(), "pushed=1 restored=2 delivered=3");
    begin();
    EXPECT_EQ(columns(), "");
}

TEST_F(CourierTest, WhatTheWindowHasNoRoomForIsReadFromTheSpoolInOrder) {
    useSpool(64U << 20U);
    begin(20'000);
    push(ISink::maxRecords + 5);
    step();
    push(5);
    step();
    engine->sent();
    deliver(1, ISink::maxRecords);
    step();
    std::string rest;
    for (std::size_t i = 1; i <= 10; ++i) {
        rest += (rest.empty() ? "" : " ") + std::to_string(ISink::maxRecords + i);
    }
    EXPECT_EQ(engine->sent(), rest);
    push(1);
    step();
    engine->answerAll(Fate::Delivered);
    step();
    EXPECT_EQ(account->numbers().delivered, ISink::maxRecords + 11);
    EXPECT_TRUE(courier->isIdle());
}

// About 1500 bytes a record.
TEST_F(CourierTest, EvictionTakesTheOldestIsRecordedAndTold) {
    useSpool(6'500);
    options.hostId = "here";
    begin();
    push(2, 1'000);
    step();
    engine->answerAll(Fate::TryAgain, "away");
    step();
    push(6, 1'000);
    step();
    EXPECT_EQ(columns(), "pushed=8 evicted=4 waiting=4");
    begin();
    EXPECT_EQ(columns(), "restored=4 waiting=4");
    step();
    EXPECT_EQ(engine->sent(), "5 6 7 8");
    deliver(5, 5);
    step();
    EXPECT_EQ(engine->sent(), "1");
    const auto told = nlohmann::json::parse(engine->stored.back());
    EXPECT_EQ(told["eventName"], "RecordsEvictedParcel");
    EXPECT_EQ(told["stringEntries"]["host"], "here");
    EXPECT_EQ(told["stringEntries"]["boot"], nlohmann::json::parse(engine->stored.front())["boot"]);
    EXPECT_EQ(told["u64Entries"].dump(), R"({"count":4,"first":1,"last":4})");
    engine->answerAll(Fate::Delivered);
    step();
    EXPECT_EQ(columns(), "pushed=1 restored=4 delivered=5");
    step(10'000);
    EXPECT_EQ(engine->sent(), "") << "it is told once";
}

TEST_F(CourierTest, ARecordThatIsEvictedInFlightHasTheFateOfItsAnswer) {
    useSpool(3'500);
    begin();
    push(2, 1'000);
    step();
    push(2, 1'000);
    step();
    EXPECT_EQ(columns(), "pushed=4 waiting=4");
    EXPECT_EQ(account->numbers().inSpool, 2U);
    deliver(1, 1);
    engine->answer(2, Fate::TryAgain, "away");
    step();
    EXPECT_EQ(columns(), "pushed=4 delivered=1 evicted=1 waiting=2");
}

TEST_F(CourierTest, ASpoolThatCannotBeWrittenIsTriedAgain) {
    useSpool();
    begin();
    limitFiles(0);
    push(1);
    EXPECT_EQ(step(), 1'000U);
    EXPECT_EQ(engine->sent() + beside->sent(), "") << "nothing is sent before its commit";
    limitFiles(std::nullopt);
    step(999);
    EXPECT_EQ(engine->sent(), "");
    step(1);
    EXPECT_EQ(engine->sent() + beside->sent(), "11");
}

TEST_F(CourierTest, ASpoolThatIsDamagedIsPutAsideAndWhatIsInMemoryGoesOn) {
    useSpool(64U << 20U);
    begin(20'000);
    push(ISink::maxRecords + 5'000, 1'000);
    step();
    damageSpool();
    deliver(1, ISink::maxRecords - 10);
    step();
    EXPECT_EQ(account->numbers().failures.at("the spool was damaged"), 5'000U);
    EXPECT_TRUE(std::filesystem::exists(folder + "/spool.damaged-1"));
    push(1);
    step();
    EXPECT_EQ(account->numbers().waiting, 11U);
    begin();
    EXPECT_EQ(columns(), "restored=11 waiting=11");
}

} // namespace
