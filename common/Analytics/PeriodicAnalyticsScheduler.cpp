#include "common/Analytics/PeriodicAnalyticsScheduler.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/Analytics/LogLine.h"
#include "common/infra/Defs.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/Singleton.h"
#include "common/infra/TrackedAllocation.h"

PeriodicAnalyticsScheduler::PeriodicAnalyticsScheduler(IAnalyticsSchedulingPolicy* policy,
                                                       IPeriodicAnalyticsParcelFinalizer* finalizer)
    : m_finalizer(finalizer), m_policy(policy) {
    EXPECT_OR_REPORT(m_policy);
    EXPECT_OR_REPORT(m_finalizer);
    initTimer();
}

PeriodicAnalyticsScheduler::~PeriodicAnalyticsScheduler() {
    if (m_policy != nullptr) {
        TRACKED_DELETE(m_policy);
    }
    if (m_finalizer != nullptr) {
        TRACKED_DELETE(m_finalizer);
    }
}

void PeriodicAnalyticsScheduler::handleReachedTimeout() {
    if (m_finalizer != nullptr) {
        sendOrDiscard(m_finalizer->finalizeParcel());
    }
    initTimer();
}

void PeriodicAnalyticsScheduler::reachedTimeout(ITimer::Cookie cookie) {
    auto* periodicAnalyticsScheduler = reinterpret_cast<PeriodicAnalyticsScheduler*>(cookie);
    EXPECT_OR_REPORT(periodicAnalyticsScheduler)
        << " periodicAnalyticsScheduler=" << static_cast<const void*>(periodicAnalyticsScheduler)
        << " ";
    if (periodicAnalyticsScheduler != nullptr) {
        periodicAnalyticsScheduler->handleReachedTimeout();
    }
}

void PeriodicAnalyticsScheduler::initTimer() {
    if (m_policy == nullptr) {
        return;
    }
    const u64 delayMs = m_policy->getNextSchedule();
    Singleton<ITimer, Timer>::instance()->addTimer(
        reachedTimeout, reinterpret_cast<ITimer::Cookie>(this), static_cast<u32>(delayMs), true);
}

void PeriodicAnalyticsScheduler::sendOrDiscard(AnalyticsParcel* finalized) {
    if (finalized == nullptr) {
        return;
    }
    // Releases the parcel if it is not sent, also if reading the tunable throws.
    TrackedPtr<AnalyticsParcel> parcel(finalized, TRACKED_DELETE);
    const bool disabled =
        Singleton<DynamicTweaks, DynamicTweaks>::instance()->t_disablePeriodicAnalytics;
    if (!disabled) {
        AnalyticsParcelSender::sendAnalyticsParcel(parcel.release());
    }
}
