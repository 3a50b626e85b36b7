// A host that knows the installed library alone: sends a parcel and takes it out of the outbox.
#include "common/Analytics/AnalyticsParcel.h"
#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Singleton.h"
#include "common/infra/TrackedAllocation.h"

int main() {
    auto* sent = TRACKED_NEW(AnalyticsParcel)();
    AnalyticsParcelSender::sendAnalyticsParcel(sent);

    IParcelOutbox* outbox = Singleton<IParcelOutbox, ParcelOutbox>::instance();
    const bool arrived = outbox->popParcel(IParcelOutbox::KEL_ANALYTICS) == sent;
    TRACKED_DELETE(sent);
    return arrived ? 0 : 1;
}
