#include "common/infra/IParcelOutbox.h"

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/TrackedAllocation.h"
#include "host/services/MemLedger.h"
#include "tests/support/RecordingLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using std::chrono::milliseconds;
using Values = std::vector<u32>;
using Texts = std::vector<std::string>;

constexpr auto analytics = IParcelOutbox::KEL_ANALYTICS;
constexpr auto unknown = static_cast<IParcelOutbox::ParcelType>(1);

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

    static AnalyticsParcel* makeParcel(u32 value) {
        AnalyticsParcel* parcel = TRACKED_NEW(AnalyticsParcel)();
        parcel->setValue(value);
        return parcel;
    }
    void push(u32 first, u32 last) {
        for (u32 value = first; value <= last; ++value) {
            EXPECT_EQ(outbox->pushParcel(makeParcel(value), analytics), RC_SUCCESS);
        }
    }
    static u32 consume(IParcel* parcel) {
        const TrackedPtr<AnalyticsParcel> owned(static_cast<AnalyticsParcel*>(parcel),
                                                TRACKED_DELETE);
        return owned->getValue();
    }
    u32 pop() { return consume(outbox->popParcel(analytics)); }
    Values popAll() {
        Values values;
        for (IParcel* parcel : outbox->popParcels(analytics)) {
            values.push_back(consume(parcel));
        }
        return values;
    }
    void expectCounts(u64 pushed, u64 popped, u64 dropped) {
        const ParcelOutbox::Counts counts = outbox->counts();
        EXPECT_EQ(counts.pushed, pushed);
        EXPECT_EQ(counts.popped, popped);
        EXPECT_EQ(counts.dropped, dropped);
    }
    static std::string endOfRun(u64 dropped) {
        return " parcel outbox is no longer full: dropped=" + std::to_string(dropped) + " \n";
    }
};

TEST_F(ParcelOutboxTest, RefusesAndLeavesAloneWhatItCannotHold) {
    const TrackedPtr<AnalyticsParcel> parcel(makeParcel(7), TRACKED_DELETE);
    const std::pair<IParcel*, IParcelOutbox::ParcelType> pushes[] = {
        {nullptr, analytics}, {nullptr, unknown}, {parcel.get(), unknown}};
    for (const auto& [refused, type] : pushes) {
        EXPECT_EQ(outbox->pushParcel(refused, type), RC_BAD_PARAMETERS);
    }
    EXPECT_TRUE(outbox->isEmpty());
    expectCounts(0, 0, 0);
    EXPECT_EQ(parcel->getValue(), 7U);
    EXPECT_THROW(ParcelOutbox{0}, std::invalid_argument);
}

TEST_F(ParcelOutboxTest, GivesParcelsInTheOrderInWhichTheyCame) {
    push(1, 3);
    EXPECT_EQ(outbox->popParcel(unknown), nullptr);
    EXPECT_TRUE(outbox->popParcels(unknown).empty());
    EXPECT_EQ(pop(), 1U);
    EXPECT_EQ(outbox->size(), 2U);
    EXPECT_EQ(popAll(), (Values{2, 3}));
    EXPECT_EQ(outbox->popParcel(analytics), nullptr);
    EXPECT_EQ(popAll(), Values{});
    EXPECT_TRUE(outbox->isEmpty());
    expectCounts(3, 3, 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(ParcelOutbox().getMaxSize(), 5000U);
}

TEST_F(ParcelOutboxTest, MakesRoomByDroppingTheOldestAndReportsEachRun) {
    const std::string beginOfRun =
        " parcel outbox is full, the oldest parcels are dropped: maxSize=3 \n";
    push(1, 5);
    EXPECT_EQ(outbox->size(), outbox->getMaxSize());
    expectCounts(5, 0, 2);
    EXPECT_EQ(log.texts(WarnLevel), Texts{beginOfRun});
    EXPECT_EQ(pop(), 3U);
    EXPECT_EQ(log.texts(InfoLevel), Texts{});
    push(6, 6);
    EXPECT_EQ(log.texts(InfoLevel), Texts{endOfRun(2)});
    push(7, 7);
    EXPECT_EQ(log.texts(WarnLevel), (Texts{beginOfRun, beginOfRun}));
    EXPECT_EQ(popAll(), (Values{5, 6, 7}));
    EXPECT_EQ(log.texts(InfoLevel), (Texts{endOfRun(2), endOfRun(1)}));
    expectCounts(7, 4, 3);
}

TEST_F(ParcelOutboxTest, ReportsARunThatIsOpenWhenNothingIsHeldAnyMore) {
    const std::function<void()> endings[] = {
        [this] { pop(), pop(), pop(); },
        [this] { popAll(); },
        [this] { outbox->freeAndRemoveAllParcels(); },
        [this] { outbox.reset(); },
    };
    for (const auto& end : endings) {
        log.clear();
        push(1, 7);
        end();
        EXPECT_EQ(log.texts(InfoLevel), Texts{endOfRun(4)});
        EXPECT_EQ(MemLedger::report().liveBlocks, before.liveBlocks);
    }
}

TEST_F(ParcelOutboxTest, LosesNothingBetweenPushersAndAWaitingConsumer) {
    constexpr u32 pushers = 3;
    constexpr u32 pushes = 3000;
    auto consumed = std::async(std::launch::async, [this] {
        Values values;
        while (outbox->waitForParcel()) {
            values.push_back(pop());
        }
        return values;
    });
    std::vector<std::thread> threads;
    for (u32 i = 0; i < pushers; ++i) {
        threads.emplace_back([this, i] { push(i * pushes, (i + 1) * pushes - 1); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    outbox->stopWaiting();

    const Values values = consumed.get();
    Values next{0, pushes, 2 * pushes}; // the least that may still come from each pusher
    for (const u32 value : values) {
        EXPECT_GE(value, next[value / pushes]);
        next[value / pushes] = value + 1;
    }
    const u64 dropped = u64{pushers} * pushes - values.size();
    expectCounts(u64{pushers} * pushes, values.size(), dropped);

    u64 reported = 0;
    for (const std::string& text : log.texts(InfoLevel)) {
        reported += std::stoull(text.substr(text.find('=') + 1));
    }
    EXPECT_EQ(reported, dropped);
    EXPECT_EQ(log.texts(WarnLevel).size(), log.texts(InfoLevel).size());
}

TEST_F(ParcelOutboxTest, WakesAWaitingConsumerForAParcelAndForTheEndOfWaits) {
    ParcelOutbox replies(1);
    auto echo = std::async(std::launch::async, [&] {
        while (outbox->waitForParcel(milliseconds::max())) {
            replies.pushParcel(outbox->popParcel(analytics), analytics);
        }
    });
    bool answered = true;
    for (u32 value = 1; answered && value <= 200; ++value) {
        push(value, value);
        answered = replies.waitForParcel(milliseconds(10'000));
        EXPECT_TRUE(answered && consume(replies.popParcel(analytics)) == value) << value;
    }
    outbox->stopWaiting();
    echo.wait();
    EXPECT_FALSE(outbox->waitForParcel());
    push(201, 201);
    EXPECT_TRUE(outbox->waitForParcel());
    EXPECT_EQ(pop(), 201U);
    EXPECT_FALSE(replies.waitForParcel(milliseconds(1)));
    EXPECT_FALSE(replies.waitForParcel(milliseconds::min()));
}

} // namespace
