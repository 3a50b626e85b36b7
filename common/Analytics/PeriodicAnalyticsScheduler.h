#pragma once

#include "common/Analytics/IAnalyticsSchedulingPolicy.h"
#include "common/Analytics/IPeriodicAnalyticsParcelFinalizer.h"
#include "common/infra/Export.h"
#include "common/infra/Timer.h"

// Makes a periodic report out of a policy and a finalizer.
//
//     auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
//     PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), generator);
//
// Its life: the constructor asks the policy for a delay and arms the host's timer. At each expiry
// the finalizer closes the period. Its parcel is sent, or destroyed unsent while the live tunable
// t_disablePeriodicAnalytics is true. Then the timer is armed with the policy's next answer, of
// which it gets the low 32 bits: up to 49.7 days.
//
//     pending expiry | armed by
//     ---------------+---------------------------------------
//     the first      | the constructor, as its last step
//     each later one | the expiry before it, as its last step
//
// So one expiry is pending at any time and expiries never overlap. The timer cannot cancel: a
// scheduler lives until the process ends, or until the host has stopped its timer service.
//
// The constructor runs on the host's thread, all else on the thread from which the timer calls
// back. An exception in an expiry passes to the timer service, before the next expiry is armed.
class ANALYTICS_VISIBLE PeriodicAnalyticsScheduler {
public:
    // Owns policy and finalizer, both from tracked allocation, once it has returned; if it throws,
    // they stay the caller's. A null one is reported by an assertion line: without a policy nothing
    // is armed, without a finalizer nothing is sent.
    PeriodicAnalyticsScheduler(IAnalyticsSchedulingPolicy* policy,
                               IPeriodicAnalyticsParcelFinalizer* finalizer);
    PeriodicAnalyticsScheduler(const PeriodicAnalyticsScheduler&) = delete;
    PeriodicAnalyticsScheduler& operator=(const PeriodicAnalyticsScheduler&) = delete;
    virtual ~PeriodicAnalyticsScheduler();

    // The work of one expiry.
    virtual void handleReachedTimeout();

    // The timer's callback; the cookie is the scheduler's address.
    static void reachedTimeout(ITimer::Cookie cookie);

private:
    void initTimer();
    void sendOrDiscard(AnalyticsParcel* finalized);

    IPeriodicAnalyticsParcelFinalizer* m_finalizer;
    IAnalyticsSchedulingPolicy* m_policy;
};
