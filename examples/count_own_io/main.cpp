// A service whose pool of threads reads and writes a file by itself. It counts these I/Os, reads
// and writes apart, and prints a report of each, every second and at the end.

#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/infra/AIO.h"
#include "common/infra/TrackedAllocation.h"
#include "common/infra/Tweaks.h"
#include "host/forwarding/ParcelFormat.h"
#include "host/services/HostServices.h"
#include "host/services/StorageLatency.h"
#include "host/services/StorageSetGenerator.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// A report of a set of I/Os. Its timer cannot be cancelled, so it lives until stop(), wherever it
// was made.
class IoReport {
public:
    IoReport(const std::string& event, const std::string& name) {
        auto* generator = TRACKED_NEW(StorageSetGenerator)(event, name, ios);
        m_scheduler =
            std::make_unique<PeriodicAnalyticsScheduler>(generator->createPolicy(), generator);
    }

    // Sends the last, partial period. After hostTimer().stop().
    void stop() {
        m_scheduler->handleReachedTimeout();
        m_scheduler.reset();
    }

    StorageLatency ios;

private:
    std::unique_ptr<PeriodicAnalyticsScheduler> m_scheduler;
};

// What a service keeps as long as it runs.
class Reporting {
public:
    ~Reporting() { stop(); }

    // Once there are no more I/Os: no more expiries, the last period, the outbox emptied.
    void stop() {
        if (m_consumer.joinable()) {
            hostTimer().stop();
            reads.stop();
            writes.stop();
            hostOutbox().stopWaiting();
            m_consumer.join();
        }
    }

    IoReport reads{"StorageReadsParcel", "reads"};
    IoReport writes{"StorageWritesParcel", "writes"};

private:
    std::thread m_consumer{[] {
        while (const auto parcel = takeParcel()) {
            std::cout << formatParcel(*parcel, false) << std::flush;
        }
    }};
};

// A thread of the pool.
void work(int file, bool isWriter, StorageLatency& set) {
    std::array<char, 4096> block{};
    for (int i = 0; i < 50'000; ++i) {
        AIO::Measure io(set); // until the end of this turn
        const ssize_t moved = isWriter ? pwrite(file, block.data(), block.size(), 0)
                                       : pread(file, block.data(), block.size(), 0);
        if (moved < 0) {
            io.failed();
        }
    }
}

int main() {
    Tweaks::instance()->set("t_StorageAnalyticsIntervalSec", "1");
    Reporting reporting;
    std::FILE* file = std::tmpfile();
    std::vector<std::thread> pool;
    for (const bool isWriter : {true, false, true, false}) {
        IoReport& report = isWriter ? reporting.writes : reporting.reads;
        pool.emplace_back(work, fileno(file), isWriter, std::ref(report.ios));
    }
    for (std::thread& worker : pool) {
        worker.join();
    }
    reporting.stop();
}
