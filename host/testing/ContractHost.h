#pragma once

#include "common/infra/AIO.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/MemShield.h"
#include "common/infra/StringUtils.h"
#include "common/infra/Timer.h"
#include "common/infra/Tweaks.h"

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace analytics_contract {

// What a host may promise beyond what the library relies on.
enum class Advice {
    ThrowingCallbackComesAgain,
    ExpiriesComeInOrder,
    ParcelsComeOutInOrder,
    PushesMayCoincide,
    AllocationsMayCoincide,
    ReadingStartsPeriod
};

// The host whose services are tried: the services, and what the checks need to do that the library
// never does. A host derives from this; each check makes an object of the derived class and
// destroys it afterwards, so services of its own can be members. What is not overridden reaches the
// services as the library does.
class ContractHost {
public:
    ContractHost() = default;
    virtual ~ContractHost() = default;
    ContractHost(const ContractHost&) = delete;
    ContractHost& operator=(const ContractHost&) = delete;

    // What only the host knows how to do.

    // Makes the tunable have this value.
    virtual void setTunable(const std::string& name, u32 value) = 0;
    // Takes a parcel out of the outbox, the caller's from then on; null if there is none.
    virtual IParcel* takeParcel() = 0;

    // What is right for most hosts.

    // Lets so much time pass, and the callbacks run that fall due: for a timer in simulated time.
    // Real time passes by itself.
    virtual void passTime(u32 /*ms*/) {}
    // How long to wait for something that must happen before it is held to be missing.
    virtual std::chrono::milliseconds limit() { return std::chrono::seconds(10); }
    // How many parcels the outbox keeps; the library makes it with 5000.
    virtual u64 outboxBound() { return 5000; }
    // Sets the switch that isMemshieldActive() answers.
    virtual void setTracking(bool on) { MemShield::bMemshieldActive = on; }
    // How many blocks the memory tracker holds alive, if it knows.
    virtual std::optional<u64> liveBlocks() { return std::nullopt; }

    // The advised suite only: what this host promises, and how it counts one I/O.
    virtual bool promises(Advice /*advice*/) { return true; }
    virtual void countIo() {
        throw std::logic_error("ContractHost::countIo() is needed for Advice::ReadingStartsPeriod");
    }

    // The services.

    virtual ITimer& timer() { return *Singleton<ITimer, Timer>::instance(); }
    virtual IParcelOutbox& outbox() { return *Singleton<IParcelOutbox, ParcelOutbox>::instance(); }
    virtual MemShield& memShield() { return *Singleton<MemShield, MemShield>::instance(); }
    virtual std::vector<std::string> splitStr(const std::string& text, char separator) {
        return StringUtils::splitStr(text, separator);
    }
    virtual bool contains(const std::string& text, const std::string& part) {
        return StringUtils::contains(text, part);
    }
    virtual u32 uintVal(const std::string& name, const DefaultTweakValue<unsigned int>& fallback) {
        return Singleton<Tweaks, Tweaks>::instance()->uintVal(name, fallback);
    }
    virtual void readCounters(StorageAnalyticsCounters& counters) {
        Singleton<AIO, AIO>::instance()->mabeStorageLatencyAnalytics(counters);
    }
};

} // namespace analytics_contract
