#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/TrackedAllocation.h"
#include "host/testing/ContractTimer.h"
#include "host/testing/Installed.h"

#include <set>

namespace analytics_contract {

// Passes everything on to the host's memory tracker and keeps book of the blocks. What is released
// stays allocated until this ends, so that a use after the release does no harm. Thread-safe as far
// as the tracker is.
class ParcelLedger final : public MemShield {
public:
    explicit ParcelLedger(MemShield& tracker) : m_tracker(tracker) {}
    ~ParcelLedger() {
        for (void* const block : m_released) {
            release(block);
        }
    }
    ParcelLedger(const ParcelLedger&) = delete;
    ParcelLedger& operator=(const ParcelLedger&) = delete;

    // Blocks that were allocated and not released.
    std::set<void*> alive() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_alive;
    }
    bool isAlive(void* block) const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_alive.count(block) > 0;
    }
    u64 releasedTwice() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_releasedTwice;
    }

    bool isMemshieldActive() override { return m_tracker.isMemshieldActive(); }
    void* allocAndRegister(unsigned long size, unsigned long reserved, const char* typeName,
                           const char* file, unsigned int line) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        void* block = m_tracker.allocAndRegister(size, reserved, typeName, file, line);
        m_alive.insert(block);
        return block;
    }
    void verifyPtr(void* block, const char* file, unsigned int line) override {
        if (isAlive(block)) {
            m_tracker.verifyPtr(block, file, line);
        }
    }
    void freeAndUnregister(void* block, const char* /*file*/, unsigned int /*line*/) override {
        freeAndCount(block);
    }
    void freeAndCount(void* block) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_alive.erase(block) > 0) {
            m_released.insert(block);
        } else if (m_released.count(block) > 0) {
            ++m_releasedTwice;
        } else {
            release(block); // older than this
        }
    }

private:
    void release(void* block) {
        if (m_tracker.isMemshieldActive()) {
            m_tracker.freeAndUnregister(block, ANALYTICS_FILE_NAME, __LINE__);
        } else {
            m_tracker.freeAndCount(block);
        }
    }

    MemShield& m_tracker;
    mutable std::mutex m_mutex;
    std::set<void*> m_alive;
    std::set<void*> m_released;
    u64 m_releasedTwice = 0;
};

// Parcels that a check makes, pushes, takes and destroys, and what became of each.
class Parcels {
public:
    explicit Parcels(ContractHost& host)
        : m_host(host), m_ledger(host.memShield()), m_installed(m_ledger) {
        while (IParcel* parcel = host.takeParcel()) { // what others have left
            TRACKED_DELETE(static_cast<AnalyticsParcel*>(parcel));
        }
    }
    // Destroys what nobody has destroyed, so that a broken outbox is not the check's leak.
    ~Parcels() {
        for (void* const block : m_ledger.alive()) {
            TRACKED_DELETE(static_cast<AnalyticsParcel*>(block));
        }
    }
    Parcels(const Parcels&) = delete;
    Parcels& operator=(const Parcels&) = delete;

    // Any thread.
    AnalyticsParcel* push() {
        auto* parcel = TRACKED_NEW(AnalyticsParcel)();
        if (m_host.outbox().pushParcel(parcel, IParcelOutbox::KEL_ANALYTICS) != RC_SUCCESS) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_refused.insert(parcel);
        }
        return parcel;
    }

    // Takes all parcels out of the outbox and destroys them. Reports what should not have come out
    // and leaves that alone.
    std::vector<IParcel*> takeAll(const std::string& promise) {
        std::vector<IParcel*> taken;
        std::set<std::string> wrong;
        while (IParcel* parcel = m_host.takeParcel()) {
            auto* analyticsParcel = static_cast<AnalyticsParcel*>(parcel);
            if (std::find(taken.begin(), taken.end(), parcel) != taken.end()) {
                wrong.insert("a parcel came out of the outbox twice");
                break; // it would come again and again
            }
            taken.push_back(parcel);
            if (!m_ledger.isAlive(analyticsParcel)) {
                wrong.insert("a parcel came out of the outbox after it had been freed");
                continue;
            }
            if (m_refused.count(analyticsParcel) > 0) {
                wrong.insert("a parcel was kept, but pushParcel() did not answer RC_SUCCESS");
            }
            TRACKED_DELETE(analyticsParcel);
        }
        for (const std::string& what : wrong) {
            reportBroken(promise, what);
        }
        return taken;
    }

    std::size_t refused() const { return m_refused.size(); }
    const ParcelLedger& ledger() const { return m_ledger; }

private:
    ContractHost& m_host;
    ParcelLedger m_ledger;
    Installed<MemShield, MemShield> m_installed;
    std::mutex m_mutex;
    std::set<AnalyticsParcel*> m_refused;
};

// Required.

inline void eachPushedParcelIsKeptOrFreed(ContractHost& host) {
    const std::string promise = "IParcelOutbox::pushParcel() keeps each parcel and answers "
                                "RC_SUCCESS, or frees it with internal_delete_helper()";
    Parcels parcels(host);
    const u64 count = host.outboxBound() + 10;
    for (u64 i = 0; i < count; ++i) {
        parcels.push();
    }
    parcels.takeAll(promise);
    if (parcels.ledger().releasedTwice() > 0) {
        reportBroken(promise, "a parcel was freed twice");
    }
    const std::size_t lost = parcels.ledger().alive().size();
    if (lost > 0) {
        reportBroken(promise, "of " + std::to_string(count) + " parcels " + std::to_string(lost) +
                                  " are neither in the outbox nor freed, and " +
                                  std::to_string(parcels.refused()) +
                                  " were refused; the scheduler does not look at the status, so "
                                  "they are lost with their memory");
    }
}

// Advised.

inline void parcelsComeOutInOrder(ContractHost& host) {
    const std::string promise = "parcels come out of the outbox in the order of their pushes";
    Parcels parcels(host);
    std::vector<IParcel*> pushed;
    for (u64 i = 0; i < std::min<u64>(host.outboxBound(), 5); ++i) {
        pushed.push_back(parcels.push());
    }
    const std::vector<IParcel*> taken = parcels.takeAll(promise);
    if (taken.size() != pushed.size()) {
        reportBroken(promise, "of " + std::to_string(pushed.size()) + " parcels " +
                                  std::to_string(taken.size()) + " came out");
    } else if (taken != pushed) {
        reportBroken(promise, "a parcel came out before one that was pushed earlier");
    }
}

inline void pushesMayCoincide(ContractHost& host) {
    const std::string promise = "pushes from several threads at once lose no parcel";
    constexpr u64 threadCount = 4;
    Parcels parcels(host);
    const u64 each = std::min<u64>(host.outboxBound(), 2'000) / threadCount;
    std::vector<std::thread> threads;
    for (u64 i = 0; i < threadCount; ++i) {
        threads.emplace_back([&] {
            for (u64 pushed = 0; pushed < each; ++pushed) {
                parcels.push();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::size_t taken = parcels.takeAll(promise).size();
    if (taken != each * threadCount) {
        reportBroken(promise, "of " + std::to_string(each * threadCount) + " parcels " +
                                  std::to_string(taken) + " came out");
    }
}

} // namespace analytics_contract
