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

std::string endOfRun(u64 dropped) {
    return " parcel outbox is no longer full: dropped=" + std::to_string(dropped) + " \n";
}

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

TEST_F(ParcelOutboxTest, RefusesWhatItCannotHold) {
    AnalyticsParcel refused;
    EXPECT_EQ(outbox->pushParcel(nullptr, analytics), RC_BAD_PARAMETERS);
    EXPECT_EQ(outbox->pushParcel(&refused, unknown), RC_BAD_PARAMETERS);
    EXPECT_EQ(outbox->popParcel(analytics), nullptr);
    push(1, 1);
    EXPECT_EQ(outbox->popParcel(unknown), nullptr);
    EXPECT_TRUE(outbox->popParcels(unknown).empty());
    EXPECT_EQ(counts(), (Numbers{1, 0, 0, 1}));
    EXPECT_THROW(ParcelOutbox{0}, std::invalid_argument);
    EXPECT_EQ(ParcelOutbox().getMaxSize(), 5000U);
}

TEST_F(ParcelOutboxTest, DropsTheOldest) {
    push(1, 3);
    EXPECT_EQ(pop(), 1U);
    push(4, 4);
    EXPECT_TRUE(log.lines().empty());
    push(5, 6);
    EXPECT_EQ(log.texts(WarnLevel), Texts{beginOfRun});
    EXPECT_EQ(pop(), 4U);
    EXPECT_EQ(log.texts(InfoLevel), Texts{});
    push(7, 8);
    EXPECT_EQ(log.texts(WarnLevel), (Texts{beginOfRun, beginOfRun}));
    EXPECT_EQ(popAll(), (Numbers{6, 7, 8}));
    EXPECT_EQ(log.texts(InfoLevel), (Texts{endOfRun(2), endOfRun(1)}));
    EXPECT_EQ(counts(), (Numbers{8, 5, 3, 0}));
}

TEST_F(ParcelOutboxTest, ARunOfDropsEndsWhenNothingIsHeldAnyMore) {
    const std::function<void()> endings[] = {[this] { pop(), pop(), pop(); },
                                             [this] { outbox->freeAndRemoveAllParcels(); },
                                             [this] { outbox.reset(); }};
    for (const auto& end : endings) {
        log.clear();
        push(1, 7);
        end();
        EXPECT_EQ(log.texts(InfoLevel), Texts{endOfRun(4)});
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }
}

TEST_F(ParcelOutboxTest, ParcelsChangeHandsWithoutMemory) {
    AnalyticsParcel* extra = TRACKED_NEW(AnalyticsParcel)();
    IParcel* popped = nullptr;
    LogService::setLevel(AssertLevel);
    const auto withoutMemory = [](const auto& operation) {
        EXPECT_EQ(failEachAllocation(operation, [] {}), 0);
    };
    push(1, 4); // begins a run
    withoutMemory([&] { outbox->pushParcel(extra, analytics); });
    allocationsLeft = 0;
    EXPECT_THROW(outbox->popParcels(analytics), std::bad_alloc);
    for (int parcel = 0; parcel < 3; ++parcel) { // ends the run
        withoutMemory([&] { popped = outbox->popParcel(analytics); });
        consume({popped});
    }
    push(1, 4);
    withoutMemory([&] { outbox.reset(); });
    LogService::setLevel(InfoLevel);
}

TEST_F(ParcelOutboxTest, AWaitHasALimit) {
    EXPECT_FALSE(outbox->waitForParcel(milliseconds(1)));
    EXPECT_FALSE(outbox->waitForParcel(milliseconds::min()));
    push(1, 1);
    outbox->stopWaiting();
    EXPECT_TRUE(outbox->waitForParcel());
    pop();
    EXPECT_FALSE(outbox->waitForParcel());
}

// With a push, or with a stop in the last round.
TEST_F(ParcelOutboxTest, EveryWaiterIsWoken) {
    constexpr u32 rounds = 200;
    for (u32 round = 0; round <= rounds && !HasFailure(); ++round) {
        std::atomic<int> begun{0};
        const auto wait = [&](milliseconds limit) { return ++begun, outbox->waitForParcel(limit); };
        std::array waits{std::async(std::launch::async, wait, milliseconds::max()),
                         std::async(std::launch::async, wait, milliseconds::max())};
        for (u32 turn = 0; begun < 2 || turn < round; ++turn) { // so that they mostly wait by then
            std::this_thread::yield();
        }
        round < rounds ? push(round, round) : outbox->stopWaiting();
        for (auto& each : waits) {
            ASSERT_EQ(each.wait_for(std::chrono::seconds(10)), std::future_status::ready) << round;
            EXPECT_EQ(each.get(), round < rounds);
        }
        EXPECT_EQ(popAll().size(), round < rounds ? 1U : 0U);
    }
}

TEST_F(ParcelOutboxTest, NothingIsLostBetweenThreads) {
    constexpr u32 pushes = 3000;
    const auto run = [this](u32 number) { push(number * pushes, (number + 1) * pushes - 1); };
    std::array pushers{std::async(std::launch::async, run, 0),
                       std::async(std::launch::async, run, 1),
                       std::async(std::launch::async, run, 2)};
    auto last = std::async(std::launch::async, [&] {
        for (auto& pusher : pushers) {
            pusher.get();
        }
        outbox->stopWaiting();
    });
    Numbers next{0, pushes, 2 * pushes}; // the least that may come from each
    u64 popped = 0;
    for (; outbox->waitForParcel(); ++popped) {
        const u64 value = pop();
        EXPECT_GE(value, std::exchange(next[value / pushes], value + 1));
    }
    last.get();
    EXPECT_EQ(counts(), (Numbers{3 * pushes, popped, 3 * pushes - popped, 0}));
}

} // namespace
