#include "host/services/HostServices.h"

#include "common/infra/Singleton.h"

Timer& hostTimer() {
    return dynamic_cast<Timer&>(*Singleton<ITimer, Timer>::instance());
}

ParcelOutbox& hostOutbox() {
    return dynamic_cast<ParcelOutbox&>(*Singleton<IParcelOutbox, ParcelOutbox>::instance());
}

TrackedPtr<AnalyticsParcel> takeParcel() {
    ParcelOutbox& outbox = hostOutbox();
    TrackedPtr<AnalyticsParcel> parcel(nullptr, TRACKED_DELETE);
    while (!parcel && outbox.waitForParcel()) { // another consumer may be faster
        parcel.reset(static_cast<AnalyticsParcel*>(outbox.popParcel(IParcelOutbox::KEL_ANALYTICS)));
    }
    return parcel;
}
