#include "host/forwarding/Forwarder.h"

#include "common/infra/IParcelOutbox.h"
#include "host/forwarding/OutputSink.h"
#include "host/services/Clock.h"
#include "host/services/MemLedger.h"
#include "host/testing/FakeSink.h"
#include "tests/support/Files.h"

#include <gtest/gtest.h>

#include <future>
#include <regex>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds longEnough(60'000);

class ForwarderTest : public testing::Test {
protected:
    void TearDown() override {
        forwarder.reset();
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }
    void start(std::unique_ptr<ISink> sink, const ForwarderOptions& options = {}) {
        forwarder =
            std::make_unique<Forwarder>(outbox, std::move(sink), std::vector<ISink*>{}, options);
    }
    // With an engine whose calls end with `onSend`.
    FakeSink& startFake(const std::function<void()>& onSend) {
        auto sink = std::make_unique<FakeSink>();
        FakeSink& engine = *sink;
        engine.onSend = onSend;
        start(std::move(sink));
        return engine;
    }
    void push(const std::string& name) {
        auto* parcel = TRACKED_NEW(AnalyticsParcel)();
        parcel->setEventName(name);
        outbox.pushParcel(parcel, IParcelOutbox::KEL_ANALYTICS);
    }
    void waitForSend() { sent.waitUntil(monotonicNs() + 60 * nsPerSecond); }
    // Names of events, and what begins a JSON line.
    static std::string wordsOf(const std::string& text) {
        const std::regex word("schema|Event\\d|ForwardingAccountParcel");
        std::string words;
        for (std::sregex_iterator each(text.begin(), text.end(), word), end; each != end; ++each) {
            words += each->str() + " ";
        }
        return words;
    }

    const MemReport before = MemLedger::report();
    const TempFolder folder;
    ParcelOutbox outbox{100};
    Wakeup sent;
    std::unique_ptr<Forwarder> forwarder;
};

TEST_F(ForwarderTest, WhatIsPushedIsWrittenAndTheAccountComesLast) {
    for (const auto& [format, words] :
         {std::pair(ParcelFormat::Text, "Event0 Event1 ForwardingAccountParcel "),
          {ParcelFormat::JsonLines,
           "schema Event0 schema Event1 schema ForwardingAccountParcel "}}) {
        const std::string path = folder.write("output", "");
        OutputFile file(path);
        push("Event0"); // before there is a forwarder
        start(std::make_unique<OutputSink>(file, format));
        push("Event1");
        ASSERT_TRUE(forwarder->stop(longEnough));
        EXPECT_EQ(forwarder->account().numbers().text(),
                  "pushed=3 restored=0 delivered=3 failed=0 dropped=0 evicted=0 waiting=0");
        EXPECT_EQ(wordsOf(folder.read("output")), words);
        forwarder.reset();
    }
}

TEST_F(ForwarderTest, PushesAndAnswersWakeAThreadThatWaits) {
    FakeSink& engine = startFake([this] { sent.wake(); });
    push("Event");
    waitForSend();
    EXPECT_EQ(engine.calls(), "1");
    auto stop = std::async(std::launch::async, [this] { return forwarder->stop(longEnough); });
    engine.answerAll(Fate::Delivered);
    waitForSend();
    EXPECT_EQ(engine.calls(), "2") << "the account";
    engine.answerAll(Fate::Delivered);
    EXPECT_TRUE(stop.get());
    EXPECT_EQ(forwarder->account().numbers().delivered, 2U);
}

TEST_F(ForwarderTest, AStopEndsAtItsLimitWithWhatWaits) {
    startFake({});
    push("Event");
    EXPECT_TRUE(forwarder->stop(milliseconds(100)));
    EXPECT_EQ(forwarder->account().numbers().text(),
              "pushed=2 restored=0 delivered=0 failed=0 dropped=0 evicted=0 waiting=2");
}

TEST_F(ForwarderTest, AStopDoesNotWaitForACallThatDoesNotReturn) {
    std::promise<void> release;
    startFake([&, released = release.get_future().share()] {
        sent.wake();
        released.wait();
    });
    push("Event");
    waitForSend();
    EXPECT_FALSE(forwarder->stop(milliseconds(50)));
    EXPECT_EQ(forwarder->account().numbers().waiting, 1U);
    release.set_value();
    forwarder.reset();
}

TEST_F(ForwarderTest, WhatCannotBeWrittenFailsWithItsReason) {
    OutputFile full("/dev/full");
    ForwarderOptions options;
    options.onFailure = [this] { sent.wake(); };
    start(std::make_unique<OutputSink>(full, ParcelFormat::JsonLines), options);
    push("Event");
    waitForSend();
    EXPECT_EQ(forwarder->account().numbers().failed, 1U);
    EXPECT_TRUE(forwarder->stop(longEnough));
    EXPECT_EQ(
        forwarder->account().numbers().failures,
        (std::map<std::string, u64>{{"cannot write to '/dev/full': No space left on device", 2}}));
    forwarder.reset();
}

} // namespace
