// The contract kit over the reference host's services, which keep it, and over services that each
// break one promise, which it has to find and name.

#include "host/testing/Contract.h"
#include "host/services/MemLedger.h"
#include "host/testing/FakeOutbox.h"
#include "host/testing/FakeTimer.h"
#include "tests/support/Action.h"

#include <gtest/gtest-spi.h>

using namespace analytics_contract;

namespace {

struct ReferenceHost : ContractHost {
    void setTunable(const std::string& name, u32 value) override {
        Singleton<Tweaks, Tweaks>::instance()->set(name, std::to_string(value));
    }
    IParcel* takeParcel() override { return outbox().popParcel(IParcelOutbox::KEL_ANALYTICS); }
    std::optional<u64> liveBlocks() override { return MemLedger::report().liveBlocks; }
    void countIo() override { Singleton<AIO, AIO>::instance()->countIo(1'000); }
};

// The fault that all services have at present, by its name.
std::string presentFault;
bool has(const char* fault) {
    return presentFault == fault;
}

struct BrokenTimer : FakeTimer {
    void addTimer(Callback callback, Cookie cookie, u32 delayMs, bool once) override {
        const bool isBusy = !armed().empty() && armed().back().dueMs >= getTimestampMs();
        if (has("FiresInside")) {
            callback(cookie);
        } else if (!has("NeverFires") && !(has("ArmsOneAtATime") && isBusy)) {
            cookie = has("CutsTheCookie") ? static_cast<u32>(cookie) : cookie;
            delayMs -= has("ComesEarly") ? std::min(delayMs, 2U) : 0;
            delayMs = has("WrapsRound") && delayMs > 1'000'000 ? 1 : delayMs;
            delayMs = has("LongestFirst") ? 80 - delayMs : delayMs;
            FakeTimer::addTimer(callback, cookie, delayMs, once);
        }
        if (has("Repeats") && once) {
            FakeTimer::addTimer(callback, cookie, 10, false);
        }
    }
    u64 getTimestampMs() override {
        static std::atomic<u64> readings{0};
        const u64 nowMs = FakeTimer::getTimestampMs();
        return has("RunsBackwards")   ? nowMs + 1'000 - ++readings % 100
               : has("CountsMicros")  ? nowMs * 1'000
               : has("CountsSeconds") ? nowMs / 1'000
                                      : nowMs;
    }
};

struct BrokenOutbox : FakeOutbox {
    ~BrokenOutbox() override { popParcels(KEL_ANALYTICS); } // the checks have freed them
    RcStatus pushParcel(IParcel* parcel, ParcelType type) override {
        const auto keep = [&](IParcel* one) { return FakeOutbox::pushParcel(one, type); };
        if (has("RefusesWhenFull") && size() == 64) {
            return RC_REACH_LIMIT;
        }
        if (has("KeepsThreeOfOneThread") && (size() == 3 || std::this_thread::get_id() != first)) {
            return TRACKED_DELETE(static_cast<AnalyticsParcel*>(parcel)), RC_SUCCESS;
        }
        if (has("FreesTwice")) { // and keeps it
            TRACKED_DELETE(static_cast<AnalyticsParcel*>(parcel));
            Singleton<MemShield, MemShield>::instance()->freeAndCount(parcel);
        }
        const auto later = has("LastInFirstOut") ? popParcels(type) : Parcels{};
        keep(parcel);
        std::for_each(later.begin(), later.end(), keep);
        return has("KeepsTwice") ? keep(parcel) : has("KeepsAndRefuses") ? RC_ERROR : RC_SUCCESS;
    }

    const std::thread::id first = std::this_thread::get_id();
};

struct BrokenMemShield final : MemShield {
    bool isMemshieldActive() override {
        return has("TracksAlways") || MemShield::isMemshieldActive();
    }
    void* allocAndRegister(unsigned long size, unsigned long reserved, const char* typeName,
                           const char* file, unsigned int line) override {
        alignas(std::max_align_t) static char one[200'000];
        return has("GivesNull")       ? nullptr
               : has("GivesOddBlock") ? one + 8
               : has("GivesOneBlock")
                   ? one
                   : MemShield::allocAndRegister(size, reserved, typeName, file, line);
    }
    void freeAndCount(void* block) override {
        EXPECT_FALSE(isMemshieldActive());
        if (!has("KeepsWhatItCounts")) {
            MemShield::freeAndCount(block);
        }
    }
};

// In simulated time, in which nothing that is missing takes long to miss.
struct BrokenHost : ReferenceHost {
    void passTime(u32 ms) override {
        try {
            clock.advance(ms);
        } catch (const std::exception&) { // swallowed, and the expiry with it
        }
    }
    std::chrono::milliseconds limit() override { return std::chrono::milliseconds(1); }
    bool promises(Advice advice) override {
        return advice != Advice::ThrowingCallbackComesAgain && advice != Advice::PushesMayCoincide;
    }
    u64 outboxBound() override { return 64; }
    ITimer& timer() override { return clock; }
    IParcelOutbox& outbox() override { return box; }
    MemShield& memShield() override { return shield; }
    std::optional<u64> liveBlocks() override {
        return *ReferenceHost::liveBlocks() + (has("CountsNoRelease") ? ++notCounted : 0);
    }
    std::vector<std::string> splitStr(const std::string& text, char separator) override {
        auto pieces = ReferenceHost::splitStr(text, separator);
        std::reverse(has("ReversesPieces") ? pieces.begin() : pieces.end(), pieces.end());
        return pieces;
    }
    bool contains(const std::string& text, const std::string& part) override {
        return has("HoldsItself")    ? text == part
               : has("HoldsALetter") ? text.find_first_of(part) != std::string::npos
                                     : ReferenceHost::contains(text, part);
    }
    u32 uintVal(const std::string& name, const DefaultTweakValue<unsigned int>& unset) override {
        return has("KnowsNoNames") ? unset.m_value
                                   : ReferenceHost::uintVal(name, has("HasNoDefaults") ? 0 : unset);
    }
    void readCounters(StorageAnalyticsCounters& counters) override {
        const StorageAnalyticsCounters before = counters;
        ReferenceHost::readCounters(counters);
        sum += counters.storageLatency[0];
        counters.storageLatency[0] = has("AddsUp") ? sum : counters.storageLatency[0];
        counters = has("LeavesAll") ? before : counters;
    }

    BrokenTimer clock;
    BrokenOutbox box;
    BrokenMemShield shield;
    u32 sum = 0;
    u64 notCounted = 0;
};

using Check = void (*)(ContractHost&);

// What is broken, the check that finds it, and a part of what that says.
const std::tuple<const char*, Check, const char*> brokenServices[] = {
    {"NeverFires", eachArmingIsOneExpiry,
     "Broken promise: ITimer::addTimer() gives exactly one call of the callback.\n"
     "Seen: the expiry that was armed with 0 ms had not come after 1 ms.\n"},
    {"Repeats", eachArmingIsOneExpiry, "armed with 0 ms came 4 times"},
    {"FiresInside", noExpiryComesFromInsideTheArming, "with 0 ms came from inside addTimer()"},
    {"CutsTheCookie", theCookieComesBackUnchanged, "cookie 6148914691236517"},
    {"ComesEarly", noExpiryComesEarly, "armed with 30 ms came after 28 ms"},
    {"WrapsRound", noExpiryComesEarly, "armed with 4294967295 ms came at once"},
    {"ArmsOneAtATime", aCallbackCanArmTheNextExpiry, "with 2 ms had not come after 1 ms"},
    {"RunsBackwards", timeStampsNeverRunBackwards, "on any thread.\nSeen: an answer was "},
    {"CountsMicros", timeStampsCountMilliseconds, "it counted 50000 until the expiry that was"},
    {"CountsSeconds", timeStampsCountMilliseconds, "it counted 0 until"},
    {"SwallowsThrows", aThrowingCallbackComesAgain, "it was called 1 times"},
    {"LongestFirst", expiriesComeInOrder, "an expiry of 60 ms came before one of 20 ms"},
    {"RefusesWhenFull", eachPushedParcelIsKeptOrFreed,
     "of 74 parcels 10 are neither in the outbox nor freed, and 10 were refused; "},
    {"FreesTwice", eachPushedParcelIsKeptOrFreed, "came out of the outbox after it had been"},
    {"FreesTwice", eachPushedParcelIsKeptOrFreed, "a parcel was freed twice"},
    {"KeepsAndRefuses", eachPushedParcelIsKeptOrFreed, "a parcel was kept, but pushParcel() did"},
    {"KeepsTwice", parcelsComeOutInOrder, "a parcel came out of the outbox twice"},
    {"KeepsThreeOfOneThread", parcelsComeOutInOrder, "of 5 parcels 3 came out"},
    {"LastInFirstOut", parcelsComeOutInOrder, "a parcel came out before one that was pushed ear"},
    {"KeepsThreeOfOneThread", pushesMayCoincide, "of 64 parcels 0 came out"},
    {"GivesNull", blocksHoldWhatIsWritten, "1 bytes were answered with null"},
    {"GivesOddBlock", blocksHoldWhatIsWritten, "a block of 1 bytes is not aligned"},
    {"GivesOneBlock", blocksHoldWhatIsWritten, "1 bytes was changed by writing into another one"},
    {"TracksAlways", eachBlockGoesBackEitherWay, "not when tracking was switched off"},
    {"KeepsWhatItCounts", eachBlockGoesBackEitherWay, "on and released with tracking off still"},
    {"CountsNoRelease", allocationsMayCoincide, "blocks that were released still count as alive"},
    {"ReversesPieces", splitStrGivesThePiecesInOrder, "<fri><mon><wed> and not <wed><mon><fri>"},
    {"HoldsItself", containsFindsAPartAnywhere, R"("monday" and "mon" gave false)"},
    {"HoldsALetter", containsFindsAPartAnywhere, R"("mo" and "mon" gave true)"},
    {"HasNoDefaults", anUnsetTunableIsItsDefault, "the default 86400 became 0"},
    {"KnowsNoNames", aSetTunableIsItsValue, "IntervalSec was set to 3600 and answered as 86400"},
    {"LeavesAll", aReadingWritesAllEightCounters, "maxHighStorageLatencyDuration was left"},
    {"LeavesAll", aReadingWritesAllEightCounters, "storageLatency[4] was left as it was"},
    {"AddsUp", aReadingStartsAPeriod, "3 I/Os were told where 0 had completed"}};

TEST(ContractKit, NamesEachBrokenPromise) {
    using Reporter = testing::ScopedFakeTestPartResultReporter;
    std::set<Check> failed;
    const bool isTracked = MemShield::bMemshieldActive;
    for (const auto& [fault, check, part] : brokenServices) {
        presentFault = fault;
        BrokenHost host;
        testing::TestPartResultArray failures;
        {
            const Reporter reporter(Reporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
            check(host);
        }
        std::string said;
        for (int i = 0; i < failures.size(); ++i) {
            said += std::string(failures.GetTestPartResult(i).message()) + "\n";
        }
        EXPECT_NE(said.find(part), std::string::npos) << fault << " " << said;
        failed.insert(check);
    }
    presentFault.clear();
    EXPECT_EQ(MemShield::bMemshieldActive, isTracked) << "the switch is not set back";
    EXPECT_EQ(failed.size(), requiredChecks.size() + advisedChecks.size());
}

// What a callback arms with no delay comes a millisecond later; what is armed outside of one, at
// once.
TEST(FakeTimerTest, TimeGoesOnInCallbacksThatArmThrowAndMoveIt) {
    FakeTimer timer;
    std::string calls;
    const auto note = [&](const char* name) {
        calls += name + std::to_string(timer.getTimestampMs()) + " ";
    };
    Action tick = [&] { note("tick"); };
    Action again = [&] { note("again"), calls.size() < 40 ? arm(timer, again) : void(); };
    Action failing = [&] { throw std::runtime_error("out of paper"); };
    Action moving = [&] { note("moving"), timer.advanceTo(20), arm(timer, again); };
    arm(timer, again);
    EXPECT_EQ(timer.advanceTo(9), 6);
    arm(timer, failing);
    EXPECT_THROW(timer.advance(0), std::runtime_error);
    arm(timer, moving), arm(timer, tick, 3);
    EXPECT_EQ(timer.advanceTo(10), 1);
    EXPECT_THROW(timer.advanceTo(19), std::invalid_argument);
    arm(timer, tick, 0, false);
    EXPECT_EQ(timer.advance(2), 4);
    EXPECT_EQ(calls, "again0 again1 again2 again3 again4 again5 moving9 tick12 tick20 again21 "
                     "tick21 tick22 ");
    timer.setRealClockTime(50);
    EXPECT_EQ(timer.getRealTimestampMs(), 50U);
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testRequired<ReferenceHost>("ReferenceHost");
    testAdvised<ReferenceHost>("ReferenceHost");
    testRequired<BrokenHost>("WithoutFault");
    testAdvised<BrokenHost>("WithoutFault");
    return RUN_ALL_TESTS();
}
