#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/Record.h"
#include "tests/support/Test.h"

// A storage report with a figure of its own in every entry.
inline AnalyticsParcel storageReport() {
    AnalyticsParcel parcel;
    parcel.setEventName("StoragePeriodicParcel");
    parcel.setCategory("storage");
    parcel.setKelTimeStamp(1'700'000'000'123);
    parcel.setText("[Latency Threshold=50000][lt=60000]");
    parcel.setValue(7);
    parcel.addEntry("cm1", u32{120}).addEntry("cm2", u32{30}).addEntry("cm3", u32{4});
    parcel.addEntry("cm4", u32{1}).addEntry("cm5", u32{0}).addEntry("cm6", u32{12});
    parcel.addEntry("boundFastUs", u32{900}).addEntry("boundModerateUs", u32{5'000});
    parcel.addEntry("boundSlowUs", u32{20'500}).addEntry("boundVerySlowUs", u32{1'000'000});
    parcel.addEntry("p50Us", u32{71}).addEntry("p90Us", u32{500}).addEntry("p99Us", u32{1'234'567});
    parcel.addEntry("p999Us", u32{34'567}).addEntry("maxUs", ~u32{0}).addEntry("episodes", u32{5});
    parcel.addEntry("cd11", u64{1}).addEntry("failedIos", u64{6}).addEntry("periodMs", u64{1'980});
    return parcel.addEntry("episodeSumMs", u64{750});
}

inline Record makeRecord(u64 ticket, const std::string& boot = "boot", std::string line = "{}\n") {
    return {ticket, ticket + 1'000, std::make_shared<Origin>(Origin{"host", boot}),
            std::move(line)};
}

// So many parcels, each with a text of so many bytes.
inline void pushTexts(IParcelOutbox& outbox, u64 count, std::size_t size = 0) {
    for (u64 i = 0; i < count; ++i) {
        auto* parcel = TRACKED_NEW(AnalyticsParcel)();
        parcel->setText(std::string(size, 'x'));
        outbox.pushParcel(parcel, IParcelOutbox::KEL_ANALYTICS);
    }
}
