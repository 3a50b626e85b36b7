#include "host/services/StorageEntries.h"

void addStorageEntries(AnalyticsParcel& parcel, const StoragePeriod& period) {
    const u32* bounds = period.limits.bounds;
    parcel.addEntry("boundFastUs", bounds[0])
        .addEntry("boundModerateUs", bounds[1])
        .addEntry("boundSlowUs", bounds[2])
        .addEntry("boundVerySlowUs", bounds[3]);
    parcel.addEntry("p50Us", period.p50Us)
        .addEntry("p90Us", period.p90Us)
        .addEntry("p99Us", period.p99Us)
        .addEntry("p999Us", period.p999Us)
        .addEntry("maxUs", period.maxUs);
    parcel.addEntry("failedIos", period.failedIos)
        .addEntry("periodMs", period.periodMs)
        .addEntry("episodes", period.episodes)
        .addEntry("episodeSumMs", period.episodeSumMs);
}
