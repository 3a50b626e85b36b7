// A program that links libanalytics_forwarding.a and has classes of its own under names that it
// uses. Exit code 0 if an event arrives and the own classes work.

#include "ArchiveNames.h"
#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/Forwarder.h"
#include "host/forwarding/OutputFile.h"
#include "host/forwarding/OutputSink.h"
#include "host/services/HostServices.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    OutputFile output{argv[1]};
    ForwarderOptions options;
    options.spool = SpoolOptions{std::string(argv[1]) + ".spool"};
    Forwarder forwarder(hostOutbox(), std::make_unique<OutputSink>(output, ParcelFormat::JsonLines),
                        {}, options);
    AnalyticsParcelSender::sendAnalyticsParcel(TRACKED_NEW(AnalyticsParcel)());
    const bool hasEnded = forwarder.stop(std::chrono::seconds(60));
    // The event and the account.
    const bool hasArrived =
        forwarder.account().numbers().text().find("delivered=2") != std::string::npos;
    return hasEnded && hasArrived && useOwnClasses() == 500 ? 0 : 1;
}
