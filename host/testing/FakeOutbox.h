#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"

#include <deque>
#include <stdexcept>
#include <utility>
#include <vector>

// An outbox that records every push and can be told to fail the next one. It has no bound. One
// thread at a time.
class ANALYTICS_TAG FakeOutbox : public IParcelOutbox {
public:
    // Whatever sequence the host's interface answers.
    using Parcels = decltype(std::declval<IParcelOutbox&>().popParcels(KEL_ANALYTICS));

    struct Push {
        IParcel* parcel;
        ParcelType type;
    };

    ~FakeOutbox() override { freeAndRemoveAllParcels(); }

    // The next push answers `status` and leaves its parcel alone.
    void refuseNextPush(RcStatus status) { m_nextStatus = status; }
    // The next push throws std::runtime_error and leaves its parcel alone.
    void throwAtNextPush() { m_throwNext = true; }

    // Every push so far, in order, those that failed included.
    const std::vector<Push>& pushes() const { return m_pushes; }

    // The oldest parcel held; null if there is none.
    TrackedPtr<AnalyticsParcel> take() {
        return {static_cast<AnalyticsParcel*>(popParcel(KEL_ANALYTICS)), TRACKED_DELETE};
    }

    RcStatus pushParcel(IParcel* parcel, ParcelType type) override {
        m_pushes.push_back({parcel, type});
        if (std::exchange(m_throwNext, false)) {
            throw std::runtime_error("outbox failed");
        }
        const RcStatus status = std::exchange(m_nextStatus, RC_SUCCESS);
        if (status == RC_SUCCESS) {
            m_held.push_back(parcel);
        }
        return status;
    }
    IParcel* popParcel(ParcelType /*type*/) override {
        if (m_held.empty()) {
            return nullptr;
        }
        IParcel* oldest = m_held.front();
        m_held.pop_front();
        return oldest;
    }
    Parcels popParcels(ParcelType /*type*/) override {
        Parcels all(m_held.begin(), m_held.end());
        m_held.clear();
        return all;
    }
    u64 size() const override { return m_held.size(); }
    bool isEmpty() const override { return m_held.empty(); }
    u64 getMaxSize() const override { return ~u64{0}; }
    void freeAndRemoveAllParcels() override {
        while (take()) {
        }
    }

private:
    RcStatus m_nextStatus = RC_SUCCESS;
    bool m_throwNext = false;
    std::vector<Push> m_pushes;
    std::deque<IParcel*> m_held;
};
