// pusher COUNT OPTION...
//
// Forwards as analytics-host does with these options, in place of reports so many events as fast as
// about twenty a millisecond. With a COUNT of 0 it only sends what waits in the spool.
#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "host/program/Forwarding.h"

#include <poll.h>

#include <cstdlib>
#include <iostream>

int main(int argc, char** argv) {
    const Options options = parseCommandLine(argc - 1, argv + 1).options.value();
    ParcelOutbox outbox(1'000'000);
    Forwarding forwarding(options);
    forwarding.start(outbox, [] {});
    const u64 count = std::strtoull(argv[1], nullptr, 10);
    for (u64 i = 0; i < count; ++i) {
        auto* parcel = TRACKED_NEW(AnalyticsParcel)();
        parcel->setEventName("Pushed");
        outbox.pushParcel(parcel, IParcelOutbox::KEL_ANALYTICS);
        if (i % 20 == 19) {
            poll(nullptr, 0, 1);
        }
    }
    const bool hasStopped = forwarding.stop(std::chrono::seconds(30));
    const AccountNumbers numbers = forwarding.numbers();
    std::cerr << numbers.text() << std::endl;
    return hasStopped && numbers.addsUp() && numbers.waiting == 0 && numbers.lost() == 0 ? 0 : 1;
}
