// The contract kit over the reference host's services, which keep it, and over services that each
// break one promise, which it has to find and name.

#include "host/testing/Contract.h"
#include "host/services/MemLedger.h"
#include "host/testing/FakeTimer.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <memory>

using namespace analytics_contract;

namespace {

class ReferenceHost : public ContractHost {
public:
    ~ReferenceHost() override { m_timer.stop(); }
    void setTunable(const std::string& name, u32 value) override {
        Singleton<Tweaks, Tweaks>::instance()->set(name, std::to_string(value));
    }
    IParcel* takeParcel() override { return outbox().popParcel(IParcelOutbox::KEL_ANALYTICS); }
    u64 outboxBound() override { return m_outbox.getMaxSize(); }
    void setTracking(bool on) override { MemLedger::setTracking(on); }
    std::optional<u64> liveBlocks() override { return MemLedger::report().liveBlocks; }
    void countIo() override { Singleton<AIO, AIO>::instance()->countIo(1'000); }
    ITimer& timer() override { return m_timer; }
    IParcelOutbox& outbox() override { return m_outbox; }

private:
    Timer m_timer;
    ParcelOutbox m_outbox{64};
};

// The reference host in simulated time, in which nothing that is missing takes long to miss.
class QuickHost : public ReferenceHost {
public:
    void passTime(u32 ms) override { clock.advance(ms); }
    std::chrono::milliseconds limit() override { return std::chrono::milliseconds(1); }
    ITimer& timer() override { return clock; }

    FakeTimer clock;
};

// How a broken timer arms, and what it makes of the time.
using Arm = std::function<void(FakeTimer& clock, ITimer::Callback callback, ITimer::Cookie cookie,
                               u32 delayMs)>;
using Stamp = std::function<u64(u64 nowMs)>;

class BrokenTimer final : public ITimer {
public:
    BrokenTimer(FakeTimer& clock, Arm arm, Stamp stamp)
        : m_clock(clock), m_arm(std::move(arm)), m_stamp(std::move(stamp)) {}
    void addTimer(Callback callback, Cookie cookie, u32 delayMs, bool /*once*/) override {
        m_arm(m_clock, callback, cookie, delayMs);
    }
    u64 getTimestampMs() override { return m_stamp(m_clock.getTimestampMs()); }

    // What the library does not call.
    void init() override {}
    u64 getTimestampNano() override { return 0; }
    u64 getTimestampMicro() override { return 0; }
    u64 getClockMs() override { return 0; }
    u64 getLastTimestampMs_Inaccurate(bool /*refresh*/) override { return 0; }
    u64 getCurentThreadTickCount() override { return 0; }
    u64 getCurentProcessTickCount() override { return 0; }
    void setRealClockTime(u64 /*realTimeMs*/) override {}
    u64 getRealTimestampMs() override { return 0; }
    u64 getJiffies() override { return 0; }
    bool utcStringToTm(const std::string& /*text*/, tm& /*result*/) override { return false; }

private:
    FakeTimer& m_clock;
    const Arm m_arm;
    const Stamp m_stamp;
};

class BrokenTimerHost : public QuickHost {
public:
    BrokenTimerHost(Arm arm, Stamp stamp) : m_broken(clock, std::move(arm), std::move(stamp)) {}
    ITimer& timer() override { return m_broken; }
    void passTime(u32 ms) override {
        try {
            QuickHost::passTime(ms);
        } catch (const std::exception&) { // swallowed, and the expiry with it
        }
    }

private:
    BrokenTimer m_broken;
};

// Passes on to the reference outbox what `push` doesn't handle itself.
using Push = std::function<RcStatus(IParcelOutbox& outbox, AnalyticsParcel* parcel)>;

class BrokenOutbox final : public IParcelOutbox {
public:
    BrokenOutbox(IParcelOutbox& outbox, Push push) : m_outbox(outbox), m_push(std::move(push)) {}
    RcStatus pushParcel(IParcel* parcel, ParcelType /*type*/) override {
        return m_push(m_outbox, static_cast<AnalyticsParcel*>(parcel));
    }
    IParcel* popParcel(ParcelType type) override { return m_outbox.popParcel(type); }
    std::vector<IParcel*> popParcels(ParcelType type) override { return m_outbox.popParcels(type); }
    u64 size() const override { return m_outbox.size(); }
    bool isEmpty() const override { return m_outbox.isEmpty(); }
    u64 getMaxSize() const override { return m_outbox.getMaxSize(); }
    void freeAndRemoveAllParcels() override { m_outbox.freeAndRemoveAllParcels(); }

private:
    IParcelOutbox& m_outbox;
    const Push m_push;
};

class BrokenOutboxHost : public QuickHost {
public:
    explicit BrokenOutboxHost(Push push) : m_broken(QuickHost::outbox(), std::move(push)) {}
    IParcelOutbox& outbox() override { return m_broken; }

private:
    BrokenOutbox m_broken;
};

RcStatus keep(IParcelOutbox& outbox, IParcel* parcel) {
    return outbox.pushParcel(parcel, IParcelOutbox::KEL_ANALYTICS);
}

RcStatus refuseWhenFull(IParcelOutbox& outbox, AnalyticsParcel* parcel) {
    return outbox.size() < outbox.getMaxSize() ? keep(outbox, parcel) : RC_REACH_LIMIT;
}
RcStatus forgetWhenFull(IParcelOutbox& outbox, AnalyticsParcel* parcel) {
    return outbox.size() < outbox.getMaxSize() ? keep(outbox, parcel) : RC_SUCCESS;
}
RcStatus freeAndKeep(IParcelOutbox& outbox, AnalyticsParcel* parcel) {
    TRACKED_DELETE(parcel);
    return keep(outbox, parcel);
}
RcStatus freeTwice(IParcelOutbox& /*outbox*/, AnalyticsParcel* parcel) {
    TRACKED_DELETE(parcel);
    Singleton<MemShield, MemShield>::instance()->freeAndCount(parcel);
    return RC_SUCCESS;
}
RcStatus keepAndRefuse(IParcelOutbox& outbox, AnalyticsParcel* parcel) {
    keep(outbox, parcel);
    return RC_ERROR;
}
RcStatus putFirst(IParcelOutbox& outbox, AnalyticsParcel* parcel) {
    const std::vector<IParcel*> later = outbox.popParcels(IParcelOutbox::KEL_ANALYTICS);
    keep(outbox, parcel);
    for (IParcel* const held : later) {
        keep(outbox, held);
    }
    return RC_SUCCESS;
}
RcStatus keepUpToThree(IParcelOutbox& outbox, AnalyticsParcel* parcel) {
    if (outbox.size() < 3) {
        return keep(outbox, parcel);
    }
    TRACKED_DELETE(parcel);
    return RC_SUCCESS;
}
const std::thread::id mainThread = std::this_thread::get_id();
RcStatus keepOfMainThread(IParcelOutbox& outbox, AnalyticsParcel* parcel) {
    if (std::this_thread::get_id() == mainThread) {
        return keep(outbox, parcel);
    }
    TRACKED_DELETE(parcel);
    return RC_SUCCESS;
}

// A tracker whose blocks are `shift` bytes off, or all the same one; or which miscounts.
struct MemFault {
    std::size_t shift = 0;
    bool same = false;
    bool none = false;
    bool forgetsToCount = false;
    bool switchStuck = false;
};

class BrokenMemShield final : public MemShield {
public:
    explicit BrokenMemShield(const MemFault& fault) : m_fault(fault) {}
    bool isMemshieldActive() override { return m_fault.switchStuck || active; }
    void* allocAndRegister(unsigned long size, unsigned long /*reserved*/, const char* /*typeName*/,
                           const char* /*file*/, unsigned int /*line*/) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++live;
        if (m_blocks.empty() || !m_fault.same) {
            m_blocks.push_back(std::make_unique<std::max_align_t[]>(m_fault.same ? 10'000 : size));
        }
        return m_fault.none ? nullptr
                            : reinterpret_cast<char*>(m_blocks.back().get()) + m_fault.shift;
    }
    void verifyPtr(void* /*block*/, const char* /*file*/, unsigned int /*line*/) override {}
    void freeAndUnregister(void* /*block*/, const char* /*file*/, unsigned int /*line*/) override {
        --live;
    }
    void freeAndCount(void* /*block*/) override { live -= m_fault.forgetsToCount ? 0 : 1; }

    std::atomic<u64> live{0};
    bool active = false;

private:
    const MemFault m_fault;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<std::max_align_t[]>> m_blocks;
};

class BrokenMemHost : public QuickHost {
public:
    explicit BrokenMemHost(const MemFault& fault) : m_broken(fault) {}
    MemShield& memShield() override { return m_broken; }
    void setTracking(bool on) override { m_broken.active = on; }
    std::optional<u64> liveBlocks() override { return m_broken.live; }

private:
    BrokenMemShield m_broken;
};

struct DropsLastPiece : QuickHost {
    std::vector<std::string> splitStr(const std::string& text, char separator) override {
        auto pieces = QuickHost::splitStr(text, separator);
        pieces.pop_back();
        return pieces;
    }
};
struct ReversesPieces : QuickHost {
    std::vector<std::string> splitStr(const std::string& text, char separator) override {
        auto pieces = QuickHost::splitStr(text, separator);
        std::reverse(pieces.begin(), pieces.end());
        return pieces;
    }
};
struct ContainsOnlyItself : QuickHost {
    bool contains(const std::string& text, const std::string& part) override {
        return text == part;
    }
};
struct ContainsAnyLetter : QuickHost {
    bool contains(const std::string& text, const std::string& part) override {
        return text.find_first_of(part) != std::string::npos;
    }
};
struct HasNoDefaults : QuickHost {
    u32 uintVal(const std::string& name,
                const DefaultTweakValue<unsigned int>& /*fallback*/) override {
        return QuickHost::uintVal(name, {});
    }
};
struct KnowsNoNames : QuickHost {
    u32 uintVal(const std::string& /*name*/,
                const DefaultTweakValue<unsigned int>& fallback) override {
        return fallback.m_value;
    }
};
struct LeavesTheLongest : QuickHost {
    void readCounters(StorageAnalyticsCounters& counters) override {
        const u32 before = counters.maxHighStorageLatencyDuration;
        QuickHost::readCounters(counters);
        counters.maxHighStorageLatencyDuration = before;
    }
};
struct LeavesTheLastClass : QuickHost {
    void readCounters(StorageAnalyticsCounters& counters) override {
        const u32 before = counters.storageLatency[4];
        QuickHost::readCounters(counters);
        counters.storageLatency[4] = before;
    }
};
struct AddsUp : QuickHost {
    void readCounters(StorageAnalyticsCounters& counters) override {
        QuickHost::readCounters(counters);
        counters.storageLatency[0] = m_sum += counters.storageLatency[0];
    }

private:
    u32 m_sum = 0;
};

using Callback = ITimer::Callback;
using Cookie = ITimer::Cookie;
using MakeHost = std::function<std::unique_ptr<ContractHost>()>;

void arm(FakeTimer& clock, Callback callback, Cookie cookie, u32 delayMs) {
    clock.addTimer(callback, cookie, delayMs, true);
}
u64 rightTime(u64 nowMs) {
    return nowMs;
}

MakeHost timer(const Arm& arm, const Stamp& stamp = rightTime) {
    return [=] { return std::make_unique<BrokenTimerHost>(arm, stamp); };
}
MakeHost stamps(const Stamp& stamp) {
    return timer(arm, stamp);
}
MakeHost outbox(const Push& push) {
    return [=] { return std::make_unique<BrokenOutboxHost>(push); };
}
MakeHost memShield(const MemFault& fault) {
    return [=] { return std::make_unique<BrokenMemHost>(fault); };
}
template <typename Host>
MakeHost host() {
    return [] { return std::make_unique<Host>(); };
}

void neverFires(FakeTimer& /*clock*/, Callback /*callback*/, Cookie /*cookie*/, u32 /*delayMs*/) {}
void firesInside(FakeTimer& /*clock*/, Callback callback, Cookie cookie, u32 /*delayMs*/) {
    callback(cookie);
}
void repeats(FakeTimer& clock, Callback callback, Cookie cookie, u32 delayMs) {
    arm(clock, callback, cookie, delayMs);
    clock.addTimer(callback, cookie, 10, false);
}
void cutsTheCookie(FakeTimer& clock, Callback callback, Cookie cookie, u32 delayMs) {
    arm(clock, callback, static_cast<u32>(cookie), delayMs);
}
void takesSeconds(FakeTimer& clock, Callback callback, Cookie cookie, u32 delayMs) {
    arm(clock, callback, cookie, delayMs / 1000);
}
void wrapsRound(FakeTimer& clock, Callback callback, Cookie cookie, u32 delayMs) {
    arm(clock, callback, cookie, delayMs > 1'000'000 ? 1 : delayMs);
}
void armsOneAtATime(FakeTimer& clock, Callback callback, Cookie cookie, u32 delayMs) {
    const auto before = clock.armed();
    if (before.empty() || before.back().dueMs < clock.getTimestampMs()) {
        arm(clock, callback, cookie, delayMs);
    }
}
void longestFirst(FakeTimer& clock, Callback callback, Cookie cookie, u32 delayMs) {
    arm(clock, callback, cookie, 80 - delayMs);
}
u64 runsBackwards(u64 nowMs) {
    static std::atomic<u64> readings{0};
    return nowMs + 1'000 - ++readings % 100;
}
u64 toMicroseconds(u64 nowMs) {
    return nowMs * 1'000;
}
u64 toSeconds(u64 nowMs) {
    return nowMs / 1'000;
}

// A service, the check that finds it, and what it says.
struct Broken {
    const char* name;
    const char* check;
    MakeHost make;
    const char* message;
};

std::ostream& operator<<(std::ostream& out, const Broken& broken) {
    return out << broken.name;
}

std::vector<Broken> brokenTimers() {
    return {
        {"NeverFires", "EachArmingIsOneExpiry", timer(neverFires),
         "ITimer::addTimer() gives exactly one call of the callback.\nSeen: the expiry that was "
         "armed "
         "with 0 ms had not come after 1 ms."},
        {"Repeats", "EachArmingIsOneExpiry", timer(repeats), "ms came 4 times"},
        {"FiresInside", "NoExpiryComesFromInsideTheArming", timer(firesInside),
         "ITimer::addTimer() returns before its callback is called on its thread.\nSeen: the "
         "expiry "
         "that was armed with 0 ms came from inside addTimer()."},
        {"CutsTheCookie", "TheCookieComesBackUnchanged", timer(cutsTheCookie),
         "the callback gets the cookie that addTimer() was given.\nSeen: cookie 61489146912365"},
        {"TakesSeconds", "NoExpiryComesEarly", timer(takesSeconds),
         "an expiry does not come before its delay, in milliseconds, is over.\nSeen: the expiry "
         "that "
         "was armed with 30 ms came after 0 ms."},
        {"WrapsRound", "NoExpiryComesEarly", timer(wrapsRound),
         "the expiry that was armed with 4294967295 ms came at once."},
        {"ArmsOneAtATime", "ACallbackCanArmTheNextExpiry", timer(armsOneAtATime),
         "ITimer::addTimer() may be called from inside a callback.\nSeen: the expiry that was "
         "armed "
         "with 2 ms had not come after 1 ms."},
        {"RunsBackwards", "TimeStampsNeverRunBackwards", stamps(runsBackwards),
         "ITimer::getTimestampMs() never answers less than it did before, on any thread.\nSeen: an "
         "answer was "},
        {"Microseconds", "TimeStampsCountMilliseconds", stamps(toMicroseconds),
         "ITimer::getTimestampMs() counts milliseconds.\nSeen: it counted 50000 until the expiry "
         "that "
         "was armed with 50 ms came."},
        {"Seconds", "TimeStampsCountMilliseconds", stamps(toSeconds), "it counted 0 until"},
        {"SwallowsWhatIsThrown", "AThrowingCallbackComesAgain", timer(arm),
         "a callback that throws is called again, so that a periodic report goes on.\nSeen: it was "
         "called 1 times."},
        {"LongestFirst", "ExpiriesComeInOrder", timer(longestFirst),
         "expiries come in the order of their due times"},
    };
}

std::vector<Broken> brokenOutboxes() {
    return {
        {"RefusesWhenFull", "EachPushedParcelIsKeptOrFreed", outbox(refuseWhenFull),
         "IParcelOutbox::pushParcel() keeps each parcel and answers RC_SUCCESS, or frees it with "
         "internal_delete_helper().\nSeen: of 74 parcels 10 are neither in the outbox nor freed, "
         "and "
         "10 were refused; the scheduler does not look at the status, so they are lost with their "
         "memory."},
        {"ForgetsWhenFull", "EachPushedParcelIsKeptOrFreed", outbox(forgetWhenFull),
         "of 74 parcels 10 are neither in the outbox nor freed, and 0 were refused"},
        {"FreesAndKeeps", "EachPushedParcelIsKeptOrFreed", outbox(freeAndKeep),
         "a parcel came out of the outbox after it had been freed"},
        {"FreesTwice", "EachPushedParcelIsKeptOrFreed", outbox(freeTwice),
         "a parcel was freed twice"},
        {"KeepsAndRefuses", "EachPushedParcelIsKeptOrFreed", outbox(keepAndRefuse),
         "a parcel was kept, but pushParcel() did not answer RC_SUCCESS"},
        {"LastInFirstOut", "ParcelsComeOutInOrder", outbox(putFirst),
         "parcels come out of the outbox in the order of their pushes.\nSeen: a parcel came out "
         "before "
         "one that was pushed earlier."},
        {"KeepsOnlySome", "ParcelsComeOutInOrder", outbox(keepUpToThree),
         "of 5 parcels 3 came out"},
        {"KeepsThoseOfTheMainThread", "PushesMayCoincide", outbox(keepOfMainThread),
         "pushes from several threads at once lose no parcel.\nSeen: of 64 parcels 0 came out."},
    };
}

std::vector<Broken> brokenMemShields() {
    return {
        {"GivesNull", "BlocksHoldWhatIsWritten", memShield({0, false, true}),
         "MemShield::allocAndRegister() gives a block of the size, aligned for every type, that "
         "nobody "
         "else has; never null.\nSeen: 1 bytes were answered with null."},
        {"GivesUnalignedBlocks", "BlocksHoldWhatIsWritten", memShield({8}),
         "a block of 1 bytes is not aligned"},
        {"GivesOneBlockToAll", "BlocksHoldWhatIsWritten", memShield({0, true}),
         "a block of 1 bytes was changed by writing into another one"},
        {"CountsNoReleaseWithTrackingOff", "EachBlockGoesBackEitherWay",
         memShield({0, false, false, true}),
         "by freeAndCount() with tracking off.\nSeen: a block that was allocated with tracking on "
         "and "
         "released with tracking off still counts as alive."},
        {"CannotSwitchTrackingOff", "EachBlockGoesBackEitherWay",
         memShield({0, false, false, false, true}),
         "MemShield::isMemshieldActive() answers the switch.\nSeen: it did not when tracking was "
         "switched off."},
        {"CountsNoReleaseOfTwoThreads", "AllocationsMayCoincide",
         memShield({0, false, false, true}),
         "MemShield's operations may be called from several threads at once.\nSeen: blocks that "
         "were "
         "released still count as alive."},
    };
}

std::vector<Broken> otherBrokenServices() {
    return {
        {"DropsTheLastPiece", "SplitStrGivesThePiecesInOrder", host<DropsLastPiece>(),
         "StringUtils::splitStr() gives the pieces between the separators, in order.\nSeen: "
         R"("mon" gave nothing and not <mon>.)"},
        {"ReversesPieces", "SplitStrGivesThePiecesInOrder", host<ReversesPieces>(),
         R"("wed,mon,fri" gave <fri><mon><wed> and not <wed><mon><fri>)"},
        {"ContainsOnlyItself", "ContainsFindsAPartAnywhere", host<ContainsOnlyItself>(),
         "StringUtils::contains() tells whether the second text occurs in the first.\nSeen: "
         R"("monday" and "mon" gave false.)"},
        {"ContainsAnyLetter", "ContainsFindsAPartAnywhere", host<ContainsAnyLetter>(),
         R"("mo" and "mon" gave true)"},
        {"HasNoDefaults", "AnUnsetTunableIsItsDefault", host<HasNoDefaults>(),
         "Tweaks::uintVal() answers the default of a tunable that is not set.\nSeen: the default "
         "86400 "
         "became 0."},
        {"KnowsNoNames", "ASetTunableIsItsValue", host<KnowsNoNames>(),
         "Tweaks::uintVal() answers the value of the tunable of that name.\nSeen: "
         "t_StorageAnalyticsIntervalSec was set to 3600 and answered as 86400."},
        {"LeavesTheLongest", "AReadingWritesAllEightCounters", host<LeavesTheLongest>(),
         "AIO::mabeStorageLatencyAnalytics() writes all eight values of the record.\nSeen: "
         "maxHighStorageLatencyDuration was left as it was."},
        {"LeavesTheLastClass", "AReadingWritesAllEightCounters", host<LeavesTheLastClass>(),
         "storageLatency[4] was left as it was"},
        {"AddsUp", "AReadingStartsAPeriod", host<AddsUp>(),
         "AIO::mabeStorageLatencyAnalytics() tells the I/Os since the reading before.\nSeen: 3 "
         "I/Os "
         "were told where 0 had completed."},
    };
}

std::vector<Broken> brokenServices() {
    std::vector<Broken> all = brokenTimers();
    for (const auto& more : {brokenOutboxes(), brokenMemShields(), otherBrokenServices()}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

std::function<void(ContractHost&)> checkOf(const std::string& name) {
    for (const RequiredCheck& check : requiredChecks) {
        if (check.name == name) {
            return check.run;
        }
    }
    for (const AdvisedCheck& check : advisedChecks) {
        if (check.name == name) {
            return check.run;
        }
    }
    throw std::logic_error("no check " + name);
}

// What the check reports of the host, line by line as it would.
std::string failuresOf(const std::string& check, ContractHost& host) {
    testing::TestPartResultArray failures;
    {
        const testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        checkOf(check)(host);
    }
    std::string messages;
    for (int i = 0; i < failures.size(); ++i) {
        messages += std::string(failures.GetTestPartResult(i).message()) + "\n";
    }
    return messages;
}

class BrokenServices : public testing::TestWithParam<Broken> {};

TEST_P(BrokenServices, AreNamedByTheirBrokenPromise) {
    const std::string messages = failuresOf(GetParam().check, *GetParam().make());
    EXPECT_NE(messages.find(GetParam().message), std::string::npos) << messages;
}

INSTANTIATE_TEST_SUITE_P(Contract, BrokenServices, testing::ValuesIn(brokenServices()),
                         [](const auto& row) { return row.param.name; });

TEST(ContractKit, HasABrokenServiceForEachCheck) {
    std::set<std::string> checked;
    for (const Broken& broken : brokenServices()) {
        checked.insert(broken.check);
    }
    for (const RequiredCheck& check : requiredChecks) {
        EXPECT_EQ(checked.count(check.name), 1) << check.name;
    }
    for (const AdvisedCheck& check : advisedChecks) {
        EXPECT_EQ(checked.count(check.name), 1) << check.name;
    }
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testRequired<ReferenceHost>("ReferenceHost");
    testAdvised<ReferenceHost>("ReferenceHost");
    testRequired<QuickHost>("SimulatedTime");
    return RUN_ALL_TESTS();
}
