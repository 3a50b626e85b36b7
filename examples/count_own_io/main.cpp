// A service with a thread pool of its own counts the I/Os that the pool makes, reads and writes
// apart, and prints its reports as JSON lines. Exit code 1 if they do not hold exactly its I/Os.

#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/AIO.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "common/infra/Tweaks.h"
#include "host/forwarding/ParcelFormat.h"
#include "host/services/StorageLatency.h"
#include "host/services/StorageReportFinalizer.h"
#include "host/services/StorageSetGenerator.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr u64 iosPerThread = 200'000;

// A thread of the pool: makes I/Os of one kind and counts each of them.
void work(int file, bool isWriter, StorageLatency& set) {
    std::array<char, 4096> block{};
    for (u64 i = 0; i < iosPerThread; ++i) {
        AIO::Measure io(set); // until the end of this turn
        const ssize_t moved = isWriter ? pwrite(file, block.data(), block.size(), 0)
                                       : pread(file, block.data(), block.size(), 0);
        if (moved < 0) {
            io.failed();
        }
    }
}

// The consumer: prints each report, and adds up the I/Os by event until nothing more can come.
void consume(ParcelOutbox& outbox, std::map<std::string, u64>& reported) {
    while (outbox.waitForParcel()) {
        const TrackedPtr<AnalyticsParcel> parcel(
            static_cast<AnalyticsParcel*>(outbox.popParcel(IParcelOutbox::KEL_ANALYTICS)),
            TRACKED_DELETE);
        u64& ios = reported[parcel->getEventName()];
        ios += parcel->getU64Entries().at("failedIos");
        for (const char* latencyClass : {"cm1", "cm2", "cm3", "cm4", "cm5"}) {
            ios += parcel->getU32Entries().at(latencyClass);
        }
        std::cout << toJsonLine(*parcel);
    }
}

} // namespace

int main() {
    std::FILE* file = std::tmpfile();
    if (file == nullptr) {
        return 1;
    }
    Singleton<Tweaks, Tweaks>::instance()->set("t_StorageAnalyticsIntervalSec", "1");
    auto& outbox = static_cast<ParcelOutbox&>(*Singleton<IParcelOutbox, ParcelOutbox>::instance());
    StorageLatency reads;
    StorageLatency writes;

    // Three reports: of the process, and of either set.
    auto* own = TRACKED_NEW(StorageAnalyticsGenerator)();
    auto* ofReads = TRACKED_NEW(StorageSetGenerator)("StorageReadsParcel", "reads", reads);
    auto* ofWrites = TRACKED_NEW(StorageSetGenerator)("StorageWritesParcel", "writes", writes);
    std::array<PeriodicAnalyticsScheduler, 3> reports = {
        {{own->createPolicy(), TRACKED_NEW(StorageReportFinalizer)(own)},
         {ofReads->createPolicy(), ofReads},
         {ofWrites->createPolicy(), ofWrites}}};
    std::map<std::string, u64> reported;
    std::thread consumer([&] { consume(outbox, reported); });
    std::vector<std::thread> pool;
    for (const bool isWriter : {true, false, true, false}) {
        pool.emplace_back(work, fileno(file), isWriter, std::ref(isWriter ? writes : reads));
    }

    // The stop: no more I/Os, no more expiries, a report of the last period, the outbox emptied.
    for (std::thread& worker : pool) {
        worker.join();
    }
    static_cast<Timer&>(*Singleton<ITimer, Timer>::instance()).stop();
    for (PeriodicAnalyticsScheduler& report : reports) {
        report.handleReachedTimeout();
    }
    outbox.stopWaiting();
    consumer.join();
    const decltype(reported) expected = {{"StoragePeriodicParcel", 4 * iosPerThread},
                                         {"StorageReadsParcel", 2 * iosPerThread},
                                         {"StorageWritesParcel", 2 * iosPerThread}};
    return reported == expected ? 0 : 1;
}
