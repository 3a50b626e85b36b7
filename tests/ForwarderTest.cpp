#include "host/forwarding/Forwarder.h"

#include "host/forwarding/OutputSink.h"
#include "host/services/Clock.h"
#include "host/services/MemLedger.h"
#include "host/testing/FakeSink.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Examples.h"
#include "tests/support/Files.h"

namespace {

using namespace std::chrono_literals;

class ForwarderTest : public testing::Test {
protected:
    void TearDown() override {
        forwarder.reset();
        outbox.freeAndRemoveAllParcels();
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }
    void start(std::unique_ptr<ISink> sink) {
        forwarder =
            std::make_unique<Forwarder>(outbox, std::move(sink), std::vector<ISink*>{}, options);
    }
    void waitForSend() { EXPECT_TRUE(sent.waitUntil(monotonicNs() + 20 * nsPerSecond)); }

    const MemReport before = MemLedger::report();
    RecordingLog log;
    const TempFolder folder;
    ForwarderOptions options;
    ParcelOutbox outbox{100};
    Wakeup sent;
    std::unique_ptr<FakeSink> fake = std::make_unique<FakeSink>();
    FakeSink& engine = *fake;
    std::unique_ptr<Forwarder> forwarder;
};

TEST_F(ForwarderTest, WhatIsPushedIsWrittenOrFailsAndTheAccountComesLast) {
    for (const auto& [path, format, outcome, content] :
         {std::tuple(folder / "output", ParcelFormat::Text, "delivered=3 failed=0",
                     R"([^]*text: x\n[^]*text: x\n[^]*\nForwardingAccountParcel  [^]*)"),
          {folder / "output", ParcelFormat::JsonLines, "delivered=3 failed=0",
           R"(\{"schema":1,[^]*"text":"x"[^]*"text":"x"[^]*"ForwardingAccountParcel"[^]*)"},
          {"/dev/full", ParcelFormat::JsonLines, "delivered=0 failed=3", ""}}) {
        folder.write("output", "");
        OutputFile file(path);
        pushTexts(outbox, 1, 1); // before there is a forwarder
        start(std::make_unique<OutputSink>(file, format));
        pushTexts(outbox, 1, 1);
        ASSERT_TRUE(forwarder->stop(60s));
        const AccountNumbers account = forwarder->account().numbers();
        EXPECT_EQ(account.text(),
                  "pushed=3 restored=0 " + std::string(outcome) + " dropped=0 evicted=0 waiting=0");
        EXPECT_EQ(account.failures.count("cannot write to '/dev/full': No space left on device"),
                  account.failures.size());
        EXPECT_TRUE(std::regex_match(folder.read("output"), std::regex(content)));
        forwarder.reset();
    }
}

TEST_F(ForwarderTest, PushesAnswersAndAStopWakeAThreadThatWaits) {
    options.firstBackOff = options.longestBackOff = 24h;
    engine.onSend = [this] { sent.wake(); };
    start(std::move(fake));
    for (int i = 0; i < 3; ++i) { // the start itself may be what sends the first two
        pushTexts(outbox, 1);
        waitForSend();
    }
    engine.answerAll(Fate::TryAgain, "away");
    ASSERT_TRUE(log.waitFor("engine takes no records: away"));
    auto stop = std::async(std::launch::async, [this] { return forwarder->stop(60s); });
    waitForSend();
    EXPECT_EQ(engine.calls(), "1-3 purge 1-3") << "a stop ends the back-off";
    engine.answerAll(Fate::Delivered);
    waitForSend();
    EXPECT_EQ(engine.calls(), "4") << "the account";
    engine.answerAll(Fate::Delivered);
    EXPECT_TRUE(stop.get());
    EXPECT_EQ(forwarder->account().numbers().delivered, 4U);
    EXPECT_EQ(messageOf([&] { engine.answer(4, Fate::Delivered); }),
              "FakeSink::answer: record 4 is not in flight");
}

TEST_F(ForwarderTest, AStopDoesNotWaitForACallThatDoesNotReturn) {
    std::promise<void> release;
    engine.onSend = [&, released = release.get_future().share()] {
        sent.wake();
        released.wait();
    };
    start(std::move(fake));
    pushTexts(outbox, 1);
    waitForSend();
    EXPECT_FALSE(forwarder->stop(50ms));
    EXPECT_EQ(forwarder->account().numbers().waiting, 1U);
    release.set_value();
}

TEST_F(ForwarderTest, TheOutboxCallsNoForwarderThatIsGone) {
    alignas(Forwarder) std::array<char, sizeof(Forwarder)> place{};
    auto* gone = new (place.data()) Forwarder(outbox, std::make_unique<FakeSink>(), {}, options);
    gone->~Forwarder();
    place.fill(0);
    pushTexts(outbox, 1);
    EXPECT_EQ(place, decltype(place){});
}

} // namespace
