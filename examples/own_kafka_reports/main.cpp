// A service that sends the report of its own I/Os to Kafka: own_kafka_reports BROKERS TOPIC FILE
#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/AIO.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/Forwarder.h"
#include "host/forwarding/KafkaSink.h"
#include "host/services/HostServices.h"
#include "host/services/StorageReportFinalizer.h"

#include <fstream>
#include <iostream>

int main(int /*count*/, char** arguments) {
    KafkaSettings kafka;
    kafka.brokers = arguments[1];
    kafka.topic = arguments[2];
    Forwarder forwarder(hostOutbox(), makeKafkaSink(kafka), {}, {});

    auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
    auto* finalizer = TRACKED_NEW(StorageReportFinalizer)(generator);
    PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), finalizer);

    std::ifstream file(arguments[3]);
    for (std::string line; file;) {
        const AIO::Measure io; // its lifetime is the latency
        std::getline(file, line);
    }

    hostTimer().stop();
    scheduler.handleReachedTimeout(); // the last, partial period
    forwarder.stop(std::chrono::seconds(5));
    std::cout << forwarder.account().numbers().text() << std::endl;
}
