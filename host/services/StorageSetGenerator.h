#pragma once

#include "common/Analytics/PeriodicAnalyticsGeneratorAbs.h"
#include "common/infra/AIO.h"
#include "common/infra/Export.h"
#include "host/services/StorageLatency.h"

#include <optional>
#include <string>

// The periodic report of a further set of counters, such as the reads, or one device. Its parcel,
// in category "storage" under an event name of the host's choice, has the text, value and entries
// of the process's own report (StorageAnalyticsGenerator.h), the entries of StorageEntries.h, and
// the string entry "set" with the set's name.
//
//     tweaksFile.load();    // a set takes its first limits from the tunables in force
//     StorageLatency reads; // outlives the I/Os that it counts and the generator
//     auto* generator = TRACKED_NEW(StorageSetGenerator)("StorageReadsParcel", "reads", reads);
//     PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), generator);
//
//     AIO::Measure io(reads);
//
// A set has one such generator, since each report begins the set's next period. If memory fails
// while a report is made, the next attempt reports the same period of the set.
class ANALYTICS_EXPORT StorageSetGenerator : public PeriodicAnalyticsGeneratorAbs {
public:
    // `set` must outlive this.
    StorageSetGenerator(const std::string& eventName, const std::string& setName,
                        StorageLatency& set);

    // A fixed-frequency policy of t_StorageAnalyticsIntervalSec seconds (86400 if it is not set),
    // read anew by each call.
    IAnalyticsSchedulingPolicy* createPolicy() override;

private:
    AnalyticsParcel* finalizeInternal() override;

    const std::string m_eventName;
    const std::string m_setName;
    StorageLatency& m_set;
    std::optional<StoragePeriod> m_unreported; // closed, but its report failed
};
