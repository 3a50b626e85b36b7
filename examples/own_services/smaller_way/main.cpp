// A service that brings an outbox of its own: it forwards each parcel at once, here as a line of
// text. Exit code 1 if anything is left in memory.

#include "common/Analytics/AnalyticsParcel.h"
#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/infra/Export.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Singleton.h"
#include "common/infra/TrackedAllocation.h"
#include "host/services/MemLedger.h"

#include <iostream>
#include <mutex>
#include <vector>

class ANALYTICS_EXPORT ForwardingOutbox final : public IParcelOutbox {
public:
    // Owns the parcel with any answer of RC_SUCCESS, so it destroys it here. With any other answer
    // the parcel would stay with the sender, and a periodic report would be lost with its memory.
    RcStatus pushParcel(IParcel* pushed, ParcelType type) override {
        if (pushed == nullptr || type != KEL_ANALYTICS) {
            return RC_BAD_PARAMETERS;
        }
        const TrackedPtr<AnalyticsParcel> parcel(static_cast<AnalyticsParcel*>(pushed),
                                                 TRACKED_DELETE);
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::cout << parcel->getEventName() << '/' << parcel->getCategory() << std::endl;
        return RC_SUCCESS;
    }

    // Nothing is ever held.
    IParcel* popParcel(ParcelType /*type*/) override { return nullptr; }
    std::vector<IParcel*> popParcels(ParcelType /*type*/) override { return {}; }
    u64 size() const override { return 0; }
    bool isEmpty() const override { return true; }
    u64 getMaxSize() const override { return 1; }
    void freeAndRemoveAllParcels() override {}

private:
    std::mutex m_mutex; // the stream's
};

int main() {
    // Before the first parcel, and until the last one: parcels go where the process's outbox is
    // then.
    static ForwardingOutbox outbox;
    Singleton<IParcelOutbox, ParcelOutbox>::setInstance(&outbox);

    auto* parcel = TRACKED_NEW(AnalyticsParcel)();
    parcel->setEventName("CacheWarmed");
    parcel->setCategory("cache");
    if (AnalyticsParcelSender::sendAnalyticsParcel(parcel) != RC_SUCCESS) {
        TRACKED_DELETE(parcel);
    }
    return MemLedger::report().liveBlocks == 0 ? 0 : 1;
}
