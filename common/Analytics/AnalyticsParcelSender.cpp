#include "common/Analytics/AnalyticsParcelSender.h"

#include "common/Analytics/LogLine.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Singleton.h"

RcStatus AnalyticsParcelSender::sendAnalyticsParcel(AnalyticsParcel* parcel) {
    LOG_LINE(LogModuleKel, InfoLevel)
        << "sending analytics parcel"
        << " parcel=" << static_cast<const void*>(parcel) << " " << std::endl;
    return Singleton<IParcelOutbox, ParcelOutbox>::instance()->pushParcel(
        parcel, IParcelOutbox::KEL_ANALYTICS);
}
