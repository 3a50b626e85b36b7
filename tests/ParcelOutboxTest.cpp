#include "common/infra/IParcelOutbox.h"

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/TrackedAllocation.h"
#include "host/services/MemLedger.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <future>
#include <optional>
#include <thread>
#include <utility>

namespace {

using std::chrono::milliseconds;
using Numbers = std::vector<u64>;
using Texts = std::vector<std::string>;

constexpr auto analytics = IParcelOutbox::KEL_ANALYTICS;
constexpr auto unknown = static_cast<IParcelOutbox::ParcelType>(1);
const std::string beginOfRun =
    " parcel outbox is full, the oldest parcels are dropped: maxSize=3 \n";
const std::string endOfRun = " parcel outbox is no longer full: dropped=";

class ParcelOutboxTest : public testing::Test {
protected:
    RecordingLog log;
    const MemReport before = MemLedger::report();
    std::optional<ParcelOutbox> outbox{3};

    void TearDown() override {
        outbox.reset();
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
        EXPECT_EQ(MemLedger::report().badReleases, before.badReleases);
    }
    void push(u32 first, u32 last) {
        for (u32 value = first; value <= last; ++value) {
            AnalyticsParcel* parcel = TRACKED_NEW(AnalyticsParcel)();
            parcel->setValue(value);
            EXPECT_EQ(outbox->pushParcel(parcel, analytics), RC_SUCCESS);
        }
    }
    static Numbers consume(const std::vector<IParcel*>& parcels) {
        Numbers values;
        for (IParcel* parcel : parcels) {
            values.push_back(static_cast<AnalyticsParcel*>(parcel)->getValue());
            TRACKED_DELETE(static_cast<AnalyticsParcel*>(parcel));
        }
        return values;
    }
    u64 pop() { return consume({outbox->popParcel(analytics)})[0]; }
    Numbers popAll() { return consume(outbox->popParcels(analytics)); }
    // Parcels that were pushed, popped, dropped, and are there.
    Numbers counts() {
        const ParcelOutbox::Counts counts = outbox->counts();
        return {counts.pushed, counts.popped, counts.dropped, outbox->size()};
    }
};

TEST_F(ParcelOutboxTest, KeepsTheOrderAndDropsTheOldestAndReportsEachRun) {
    AnalyticsParcel refused;
    EXPECT_EQ(outbox->pushParcel(nullptr, analytics), RC_BAD_PARAMETERS);
    EXPECT_EQ(outbox->pushParcel(&refused, unknown), RC_BAD_PARAMETERS);
    EXPECT_EQ(outbox->popParcel(analytics), nullptr);
    push(1, 3);
    EXPECT_EQ(outbox->popParcel(unknown), nullptr);
    EXPECT_TRUE(outbox->popParcels(unknown).empty());
    EXPECT_EQ(pop(), 1U);
    push(4, 4);
    EXPECT_TRUE(log.lines().empty());
    push(5, 6);
    EXPECT_EQ(log.texts(WarnLevel), Texts{beginOfRun});
    EXPECT_EQ(pop(), 4U);
    EXPECT_EQ(log.texts(InfoLevel), Texts{});
    push(7, 8);
    EXPECT_EQ(log.texts(InfoLevel), Texts{endOfRun + "2 \n"});
    EXPECT_EQ(log.texts(WarnLevel), (Texts{beginOfRun, beginOfRun}));
    EXPECT_EQ(popAll(), (Numbers{6, 7, 8}));
    EXPECT_EQ(log.texts(InfoLevel), (Texts{endOfRun + "2 \n", endOfRun + "1 \n"}));
    EXPECT_EQ(counts(), (Numbers{8, 5, 3, 0}));
    EXPECT_FALSE(outbox->waitForParcel(milliseconds(1)));
    EXPECT_FALSE(outbox->waitForParcel(milliseconds::min()));
    EXPECT_THROW(ParcelOutbox{0}, std::invalid_argument);
    EXPECT_EQ(ParcelOutbox().getMaxSize(), 5000U);
}

TEST_F(ParcelOutboxTest, ReportsARunThatIsOpenWhenNothingIsHeldAnyMore) {
    const std::function<void()> endings[] = {[this] { pop(), pop(), pop(); },
                                             [this] { outbox->freeAndRemoveAllParcels(); },
                                             [this] { outbox.reset(); }};
    for (const auto& end : endings) {
        log.clear();
        push(1, 7);
        end();
        EXPECT_EQ(log.texts(InfoLevel), Texts{endOfRun + "4 \n"});
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }
}

// Each call that moves parcels, made with a log that takes no line and without any memory.
TEST_F(ParcelOutboxTest, ParcelsChangeHandsWithoutALogAndWithoutMemory) {
    struct : ILogSink {
        void write(const LogRecord& /*record*/) override { throw std::bad_alloc(); }
    } refusing;
    AnalyticsParcel* extra = TRACKED_NEW(AnalyticsParcel)();
    ILogSink* const usual = LogService::setSink(&refusing);
    const auto withoutMemory = [](const auto& operation) {
        allocationsLeft = 0;
        EXPECT_NO_THROW(operation());
        EXPECT_EQ(std::exchange(allocationsLeft, unlimitedAllocations), 0);
    };
    push(1, 4); // begins a run
    withoutMemory([&] { outbox->pushParcel(extra, analytics); });
    allocationsLeft = 0;
    EXPECT_THROW(outbox->popParcels(analytics), std::bad_alloc);
    for (int parcel = 0; parcel < 3; ++parcel) { // ends the run
        IParcel* popped = nullptr;
        withoutMemory([&] { popped = outbox->popParcel(analytics); });
        consume({popped});
    }
    push(1, 4);
    withoutMemory([&] { outbox.reset(); });
    LogService::setSink(usual);
}

TEST_F(ParcelOutboxTest, APushWakesEveryWaiter) {
    for (u32 round = 0; round < 200 && !HasFailure(); ++round) {
        std::atomic<int> begun{0};
        const auto wait = [&] { return ++begun, outbox->waitForParcel(); };
        std::array waits{std::async(std::launch::async, wait),
                         std::async(std::launch::async, wait)};
        for (u32 turn = 0; begun < 2 || turn < round; ++turn) { // so that they mostly wait by then
            std::this_thread::yield();
        }
        push(round, round);
        for (const auto& each : waits) {
            EXPECT_EQ(each.wait_for(std::chrono::seconds(10)), std::future_status::ready) << round;
        }
        EXPECT_EQ(pop(), round);
        if (HasFailure()) {
            outbox->stopWaiting();
        }
    }
}

TEST_F(ParcelOutboxTest, LosesNothingBetweenPushersAndAWaitingConsumer) {
    constexpr u32 pushes = 3000;
    const auto run = [this](u32 number) { push(number * pushes, (number + 1) * pushes - 1); };
    std::thread pushers[] = {std::thread(run, 0), std::thread(run, 1), std::thread(run, 2)};
    std::thread last([&] {
        for (std::thread& pusher : pushers) {
            pusher.join();
        }
        for (u32 value = 3 * pushes; value < 4 * pushes; ++value) {
            push(value, value);
            while (!outbox->isEmpty()) { // each wakes the consumer
                std::this_thread::yield();
            }
        }
        outbox->stopWaiting();
    });
    Numbers next{0, pushes, 2 * pushes, 3 * pushes}; // the least that may come from each
    u64 popped = 0;
    for (; outbox->waitForParcel(milliseconds::max()); ++popped) {
        const u64 value = pop();
        EXPECT_GE(value, std::exchange(next[value / pushes], value + 1));
    }
    last.join();
    const u64 dropped = 4 * pushes - popped;
    EXPECT_EQ(counts(), (Numbers{4 * pushes, popped, dropped, 0}));
    u64 reported = 0;
    for (const std::string& text : log.texts(InfoLevel)) {
        reported += std::stoull(text.substr(endOfRun.size()));
    }
    EXPECT_EQ(reported, dropped);
    EXPECT_EQ(log.texts(WarnLevel).size(), log.texts(InfoLevel).size());
}

} // namespace
