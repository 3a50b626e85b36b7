#include "common/infra/IParcelOutbox.h"

#include "common/Analytics/AnalyticsParcel.h"
#include "host/services/HostServices.h"
#include "host/services/MemLedger.h"
#include "host/testing/FakeServices.h"
#include "host/testing/LogText.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Together.h"

namespace {

using std::chrono::milliseconds;
using Numbers = std::vector<u64>;

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
    // Parcels that were pushed, popped, dropped, freed, and are there.
    Numbers counts() {
        const ParcelOutbox::Counts counts = outbox->counts();
        return {counts.pushed, counts.popped, counts.dropped, counts.freed, counts.held};
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
    EXPECT_EQ(counts(), (Numbers{1, 0, 0, 0, 1}));
    EXPECT_THROW(ParcelOutbox{0}, std::invalid_argument);
    EXPECT_EQ(ParcelOutbox().getMaxSize(), 5000U);
}

TEST(HostServicesTest, ServicesOfAnotherKindAreRefused) {
    const FakeServices services;
    EXPECT_THROW(hostTimer(), std::bad_cast);
    EXPECT_THROW(takeParcel(), std::bad_cast);
}

// A run of drops ends with a push that finds room, or when nothing is held any more.
TEST_F(ParcelOutboxTest, DropsTheOldest) {
    push(1, 3);
    EXPECT_EQ(pop(), 1U);
    push(4, 6);
    EXPECT_EQ(pop(), 4U);
    EXPECT_EQ(log.lines().size(), 1U) << "a pop of some ends no run";
    push(7, 8);
    EXPECT_EQ(popAll(), (Numbers{6, 7, 8}));
    EXPECT_EQ(log.lines().size(), 4U) << "a pop of all ends a run";
    push(1, 4);
    pop(), pop(), pop();
    push(1, 5);
    outbox->freeAndRemoveAllParcels();
    EXPECT_EQ(counts(), (Numbers{17, 8, 6, 3, 0}));
    push(1, 6);
    outbox.reset();
    const std::string begin = "common warn logBegin \" parcel outbox is full, the oldest parcels "
                              "are dropped: maxSize=3 \\n\"\n";
    const std::string end = "common info logLength \" parcel outbox is no longer full: dropped=";
    std::string lines;
    for (const char* dropped : {"2", "1", "1", "2", "3"}) {
        lines += begin + end + dropped + " \\n\"\n";
    }
    EXPECT_EQ(toBriefText(log), lines);
}

TEST_F(ParcelOutboxTest, ParcelsChangeHandsWithoutMemory) {
    LogService::setLevel(AssertLevel);
    push(1, 3);
    AnalyticsParcel* extra = TRACKED_NEW(AnalyticsParcel)();
    allocationsLeft = 0;
    EXPECT_THROW(outbox->popParcels(analytics), std::bad_alloc);
    allocationsLeft = 0;
    outbox->pushParcel(extra, analytics); // begins a run
    IParcel* popped = outbox->popParcel(analytics);
    outbox.reset(); // ends the run
    EXPECT_EQ(std::exchange(allocationsLeft, unlimitedAllocations), 0);
    EXPECT_EQ(consume({popped}), Numbers{2});
    LogService::setLevel(InfoLevel);
}

TEST_F(ParcelOutboxTest, TheListenerHearsWhenSomethingIsHeldAgain) {
    int heard = 0;
    outbox.emplace(1);
    outbox->setListener([&] { ++heard; });
    push(1, 4);
    popAll();
    push(5, 6);
    popAll();
    outbox->setListener(nullptr);
    push(7, 7);
    EXPECT_EQ(heard, 2);
}

// With a push, or with a stop in the last round.
TEST_F(ParcelOutboxTest, EveryWaiterIsWokenOrAtItsLimit) {
    EXPECT_FALSE(outbox->waitForParcel(milliseconds(1)));
    EXPECT_FALSE(outbox->waitForParcel(milliseconds::min()));
    constexpr u32 rounds = 200;
    for (u32 round = 0; round <= rounds && !HasFailure(); ++round) {
        std::atomic<u32> begun{0};
        const auto waits = startTogether(2 - round % 2, [&] {
            ++begun;
            EXPECT_EQ(outbox->waitForParcel(milliseconds::max()), round < rounds);
        });
        for (u32 turn = 0; begun < waits.size() || turn < round; ++turn) {
            std::this_thread::yield(); // so that they mostly wait by then
        }
        round < rounds ? push(round, round) : outbox->stopWaiting();
        for (const auto& each : waits) {
            ASSERT_EQ(each.wait_for(std::chrono::seconds(10)), std::future_status::ready) << round;
        }
        EXPECT_EQ(popAll().size(), round < rounds ? 1U : 0U);
    }
    const Installed<IParcelOutbox, ParcelOutbox> installed(*outbox);
    push(1, 1);
    EXPECT_EQ(takeParcel()->getValue(), 1U) << "after the stop";
    EXPECT_EQ(takeParcel(), nullptr);
}

} // namespace
