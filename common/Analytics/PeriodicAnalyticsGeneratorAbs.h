#pragma once

#include "common/Analytics/IAnalyticsSchedulingPolicy.h"
#include "common/Analytics/IPeriodicAnalyticsParcelFinalizer.h"
#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <string>

// Base of the periodic reports: keeps the reporting period. A generator of your own
// supplies two operations:
//
//     class CacheGenerator : public PeriodicAnalyticsGeneratorAbs {
//     public:
//         IAnalyticsSchedulingPolicy* createPolicy() override {
//             return TRACKED_NEW(FixedFrequencySchedulingPolicy)(3600);
//         }
//     private:
//         AnalyticsParcel* finalizeInternal() override {
//             auto* parcel = createPeriodicAnalyticsParcel("CachePeriodicParcel", "cache");
//             ...
//         }
//     };
//
//     state   | m_startTimeStamp | m_endTimeStamp | from                | until
//     --------+------------------+----------------+---------------------+----------------------
//     open    | set              | 0              | construction        | finalizeParcel()
//     closing | set              | set            | finalizeParcel()    | finalizeInternal()
//     returned
//
// Periods join exactly: each starts at the time stamp at which the one before it ended. If
// finalizeInternal() throws, the period goes on. One thread at a time.
class ANALYTICS_VISIBLE PeriodicAnalyticsGeneratorAbs : public IPeriodicAnalyticsParcelFinalizer {
public:
    // Opens the first period.
    PeriodicAnalyticsGeneratorAbs();

    AnalyticsParcel* finalizeParcel() override;

    // A new policy, from tracked allocation and owned by the caller, for the scheduler that is to
    // drive this generator.
    virtual IAnalyticsSchedulingPolicy* createPolicy() = 0;

    // A new parcel, from tracked allocation and owned by the caller, with the fields that all
    // periodic reports share, the length of the period in whole seconds ("cd11") among them. For
    // use within finalizeInternal(), while the period's end is known.
    AnalyticsParcel* createPeriodicAnalyticsParcel(const std::string& parcelName,
                                                   const std::string& category);

private:
    // Builds the parcel of the closing period, never null, owned by the caller.
    virtual AnalyticsParcel* finalizeInternal() = 0;

    void reset();

    static const std::string periodicDurationCd;
    static const std::string periodicReservedCd; // nothing is written under it

    u64 m_startTimeStamp; // milliseconds of the process timer
    u64 m_endTimeStamp = 0;
};
