#include "host/forwarding/Forwarder.h"

#include "common/infra/IParcelOutbox.h"
#include "host/forwarding/OutputSink.h"
#include "host/services/MemLedger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <optional>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds longEnough(60'000);

// An engine that delivers on a thread of its own, nothing, or not even returns from send().
class ThreadedSink final : public ISink {
public:
    const char* name() const override { return "engine"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    void send(const std::vector<const Record*>& batch) override {
        sent.set_value();
        release.get_future().wait();
        std::vector<Answer> all(batch.size());
        std::transform(batch.begin(), batch.end(), all.begin(), [](const Record* record) {
            return Answer{record->ticket, Fate::Delivered, ""};
        });
        sent = {};
        release = {};
        release.set_value();
        m_answering = std::async(std::launch::async, [this, all] { m_answers->answer(all); });
    }
    void purge() override {}

    std::promise<void> sent;
    std::promise<void> release; // before send() goes on

private:
    IAnswers* m_answers = nullptr;
    std::future<void> m_answering;
};

class SilentSink final : public ISink {
public:
    const char* name() const override { return "engine"; }
    void start(IAnswers& /*answers*/) override {}
    void send(const std::vector<const Record*>& /*batch*/) override {}
    void purge() override {}
};

class ForwarderTest : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
        std::filesystem::remove(path);
    }
    void push(u32 value) {
        auto* parcel = TRACKED_NEW(AnalyticsParcel)();
        parcel->setEventName("Event" + std::to_string(value));
        outbox->pushParcel(parcel, IParcelOutbox::KEL_ANALYTICS);
    }
    std::string written() const {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const MemReport before = MemLedger::report();
    const std::string path = testing::TempDir() + "forwarder." + std::to_string(getpid());
    std::optional<ParcelOutbox> outbox{100};
};

TEST_F(ForwarderTest, WhatIsPushedIsWrittenAndTheAccountComesLast) {
    for (const ParcelFormat format : {ParcelFormat::Text, ParcelFormat::JsonLines}) {
        std::filesystem::remove(path);
        outbox.emplace(100);
        OutputFile file(path);
        push(0); // before there is a forwarder
        Forwarder forwarder(*outbox, std::make_unique<OutputSink>(file, format), {}, {});
        push(1);
        push(2);
        ASSERT_TRUE(forwarder.stop(longEnough));
        EXPECT_EQ(forwarder.account().numbers().text(), "pushed=4 restored=0 delivered=4 failed=0 "
                                                        "dropped=0 evicted=0 waiting=0");
        const std::string text = written();
        std::size_t at = 0;
        for (const char* name : {"Event0", "Event1", "Event2", "ForwardingAccountParcel"}) {
            at = text.find(name, at);
            EXPECT_NE(at, std::string::npos) << name << " in " << text;
        }
        EXPECT_EQ(text[0] == '{', format == ParcelFormat::JsonLines);
    }
}

TEST_F(ForwarderTest, APushWakesAThreadThatWaits) {
    auto engine = std::make_unique<ThreadedSink>();
    ThreadedSink& sink = *engine;
    Forwarder forwarder(*outbox, std::move(engine), {}, {});
    auto sent = sink.sent.get_future();
    push(1);
    EXPECT_EQ(sent.wait_for(longEnough), std::future_status::ready);
    sink.release.set_value();
    EXPECT_TRUE(forwarder.stop(longEnough)) << "an answer ends the wait";
    EXPECT_EQ(forwarder.account().numbers().delivered, 2U);
}

TEST_F(ForwarderTest, AStopEndsAtItsLimitWithWhatWaits) {
    Forwarder forwarder(*outbox, std::make_unique<SilentSink>(), {}, {});
    push(1);
    EXPECT_TRUE(forwarder.stop(milliseconds(100)));
    EXPECT_EQ(forwarder.account().numbers().text(), "pushed=2 restored=0 delivered=0 failed=0 "
                                                    "dropped=0 evicted=0 waiting=2");
    EXPECT_EQ(forwarder.account().numbers().lost(), 2U);
}

TEST_F(ForwarderTest, AStopDoesNotWaitForACallThatDoesNotReturn) {
    auto engine = std::make_unique<ThreadedSink>();
    ThreadedSink& sink = *engine;
    Forwarder forwarder(*outbox, std::move(engine), {}, {});
    auto sent = sink.sent.get_future();
    push(1);
    sent.wait();
    EXPECT_FALSE(forwarder.stop(milliseconds(50)));
    EXPECT_EQ(forwarder.account().numbers().waiting, 1U);
    sink.release.set_value();
}

TEST_F(ForwarderTest, WhatCannotBeWrittenFailsWithItsReason) {
    OutputFile full("/dev/full");
    ForwarderOptions options;
    std::promise<void> failed;
    options.onFailure = [&, isFirst = true]() mutable {
        if (std::exchange(isFirst, false)) {
            failed.set_value();
        }
    };
    Forwarder forwarder(*outbox, std::make_unique<OutputSink>(full, ParcelFormat::JsonLines), {},
                        options);
    push(1);
    EXPECT_EQ(failed.get_future().wait_for(longEnough), std::future_status::ready);
    EXPECT_TRUE(forwarder.stop(longEnough));
    EXPECT_EQ(forwarder.account().numbers().failures.at(
                  "cannot write to '/dev/full': No space left on device"),
              2U);
}

} // namespace
