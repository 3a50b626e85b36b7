// Exit code 0 if the fakes stand for the services: the log, the I/O counters and the outbox.

#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "host/testing/FakeAio.h"
#include "host/testing/FakeServices.h"
#include "host/testing/LogText.h"

int main() {
    const RecordingLog log;
    FakeServices services;
    storageCounters().storageLatency[0] = 42;
    StorageAnalyticsGenerator generator;
    AnalyticsParcelSender::sendAnalyticsParcel(generator.finalizeParcel());
    const auto parcel = services.outbox.take();
    return parcel && parcel->getU32Entries().at("cm1") == 42 && !toText(log).empty() ? 0 : 1;
}
