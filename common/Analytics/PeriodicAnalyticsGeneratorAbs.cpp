#include "common/Analytics/PeriodicAnalyticsGeneratorAbs.h"

#include "common/Analytics/LogLine.h"
#include "common/infra/Singleton.h"
#include "common/infra/Timer.h"
#include "common/infra/TrackedAllocation.h"

const std::string PeriodicAnalyticsGeneratorAbs::periodicDurationCd = "cd11";
const std::string PeriodicAnalyticsGeneratorAbs::periodicReservedCd = "cd12";

PeriodicAnalyticsGeneratorAbs::PeriodicAnalyticsGeneratorAbs()
    : m_startTimeStamp(Singleton<ITimer, Timer>::instance()->getTimestampMs()) {}

AnalyticsParcel* PeriodicAnalyticsGeneratorAbs::finalizeParcel() {
    m_endTimeStamp = Singleton<ITimer, Timer>::instance()->getTimestampMs();
    AnalyticsParcel* parcel = finalizeInternal();
    reset();
    return parcel;
}

AnalyticsParcel*
PeriodicAnalyticsGeneratorAbs::createPeriodicAnalyticsParcel(const std::string& parcelName,
                                                             const std::string& category) {
    constexpr AnalyticsParcel::AccountType accountType = AnalyticsParcel::KEL;
    constexpr AnalyticsParcel::Priority priority = AnalyticsParcel::Normal;

    TrackedPtr<AnalyticsParcel> parcel(TRACKED_NEW(AnalyticsParcel)(), TRACKED_DELETE);
    parcel->setEventName(parcelName);
    parcel->setCategory(category);
    parcel->setAccount(accountType);
    parcel->setEventPriority(priority);
    parcel->addEntry(periodicDurationCd, (m_endTimeStamp - m_startTimeStamp) / OneSecondInMs);

    LOG_LINE(LogModuleCommon, InfoLevel)
        << " periodicAnalyticsParcel=" << static_cast<const void*>(parcel.get()) << " "
        << "PeriodicAnalyticsParcel data:"
        << "kelTimeStamp=" << parcel->getKelTimeStamp() << ","
        << " parcelName=" << parcelName << " "
        << ","
        << " category=" << category << " "
        << ","
        << " accountType=" << u32{accountType} << " "
        << ","
        << " priority=" << u32{priority} << " "
        << ","
        << " m_startTimeStamp=" << m_startTimeStamp << " "
        << ","
        << " m_endTimeStamp=" << m_endTimeStamp << " " << std::endl;
    return parcel.release();
}

void PeriodicAnalyticsGeneratorAbs::reset() {
    m_startTimeStamp = m_endTimeStamp;
    m_endTimeStamp = 0;
}
