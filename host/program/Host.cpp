#include "host/program/Host.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Log.h"
#include "common/infra/Timer.h"
#include "common/infra/TrackedAllocation.h"
#include "host/program/ExitCodes.h"
#include "host/program/LastReport.h"
#include "host/program/Schedule.h"
#include "host/services/Clock.h"
#include "host/services/HostServices.h"
#include "host/services/MemLedger.h"
#include "host/services/StorageReportFinalizer.h"

#include <unistd.h>

#include <iostream>
#include <string>
#include <utility>

namespace {

LoadGenerator::Options loadOptions(const Options& options, const ScratchFile& file,
                                   IoEngine::Kind ioEngine) {
    return {file.descriptor(),
            options.size,
            static_cast<u32>(options.blockSize),
            options.queueDepth,
            options.readPercent,
            options.rate,
            options.maxIos,
            ioEngine};
}

// The program's own event: the maxima that the load generator kept.
void sendMaxima(const LoadGenerator::Maxima& maxima) {
    TrackedPtr<AnalyticsParcel> parcel(TRACKED_NEW(AnalyticsParcel)(), TRACKED_DELETE);
    parcel->setEventName("HostMaximaParcel");
    parcel->setCategory("storage");
    parcel->addEntry("deepestQueue", maxima.deepestQueue);
    parcel->addEntry("longestIoUs", maxima.longestIoUs);
    if (AnalyticsParcelSender::sendAnalyticsParcel(parcel.get()) == RC_SUCCESS) {
        parcel.release();
    }
}

} // namespace

Host::Host(const Options& options)
    : m_options(options),
      m_timer(hostTimer()),
      m_outbox(hostOutbox()),
      m_output(options.outputFile),
      m_stopRequest(options.outputFile.empty() ? std::function<void()>()
                                               : [this] { m_output.requestReopen(); }),
      m_tweaksFile(loadTweaks(options)),
      m_ioEngine(IoEngine::available(options.ioEngine, options.queueDepth)),
      m_scratchFile(options.path, options.size / options.blockSize * options.blockSize,
                    [this](u64 filledBytes) { return showFilling(filledBytes); }),
      m_loadGenerator(loadOptions(options, m_scratchFile, m_ioEngine)) {}

Host::~Host() {
    // Its callbacks hold the scheduler's address.
    m_timer.stop();
}

int Host::run() {
    if (m_stopRequest.isRequested()) { // before there was anything to report
        return 128 + m_stopRequest.signal();
    }
    m_scratchFile.checkBlockSize(m_options.blockSize);
    warnOfFolder();
    start();
    m_stopRequest.wait();
    stop();
    return summarize();
}

// Tells a terminal how far a file is that takes more than two seconds to fill. False: stop.
bool Host::showFilling(u64 filledBytes) const {
    static const u64 startNs = monotonicNs();
    static u64 shownNs = startNs + nsPerSecond;
    if (isatty(STDERR_FILENO) == 1 && monotonicNs() - shownNs >= nsPerSecond) {
        shownNs = monotonicNs();
        std::cerr << "analytics-host: filling the scratch file, " << (filledBytes >> 20U) << " of "
                  << (m_options.size >> 20U) << " MiB\r" << std::flush;
    }
    return !m_stopRequest.isRequested();
}

void Host::warnOfFolder() const {
    const char* warning = nullptr;
    if (m_scratchFile.isInMemory()) {
        warning = "is on a file system in memory: the latencies are those of no disk";
    } else if (!m_scratchFile.isDirect()) {
        warning = "offers no direct I/O: the latencies are those of the page cache";
    } else {
        return;
    }
    LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
        << "'" << m_options.path << "' " << warning << std::endl;
}

void Host::start() {
    m_forwarder = std::make_unique<ParcelForwarder>(m_outbox, m_output, m_options.format,
                                                    [this] { m_stopRequest.request(); });
    if (m_tweaksFile) {
        m_tweaksFile->follow();
    }
    scheduleReports();
    m_loadStartNs = monotonicNs();
    m_loadGenerator.start();
}

// The scheduler owns policy and finalizer once its constructor has returned; until then we do.
void Host::scheduleReports() {
    TrackedPtr<StorageAnalyticsGenerator> generator(TRACKED_NEW(StorageAnalyticsGenerator)(),
                                                    TRACKED_DELETE);
    TrackedPtr<IAnalyticsSchedulingPolicy> policy = makePolicy(m_options, *generator);
    TrackedPtr<IPeriodicAnalyticsParcelFinalizer> finalizer = makeFinalizer(std::move(generator));
    m_scheduler = std::make_unique<PeriodicAnalyticsScheduler>(policy.get(), finalizer.get());
    policy.release();
    finalizer.release();
}

// Each finalizer owns the one within it once its constructor has returned.
TrackedPtr<IPeriodicAnalyticsParcelFinalizer>
Host::makeFinalizer(TrackedPtr<IPeriodicAnalyticsParcelFinalizer> finalizer) {
    auto* report = TRACKED_NEW(StorageReportFinalizer)(finalizer.get());
    finalizer.release();
    finalizer.reset(report);
    if (m_options.reports != 0) {
        auto* last = TRACKED_NEW(LastReport)(
            finalizer.get(), m_options.reports, [this] { m_loadGenerator.stop(); },
            [this] {
                m_lastReportMade = true;
                m_stopRequest.request();
            });
        finalizer.release();
        finalizer.reset(last);
    }
    return finalizer;
}

void Host::stop() {
    m_loadGenerator.stop();
    m_loadEndNs = monotonicNs();
    m_timer.stop();
    if (!m_lastReportMade) {
        m_scheduler->handleReachedTimeout(); // the running period; what it arms is dropped
    }
    m_scheduler.reset();
    sendMaxima(m_loadGenerator.maxima());
    m_forwarded = m_forwarder->drain();
    m_tweaksFile.reset();
}

int Host::summarize() const {
    const LoadGenerator::Counts ios = m_loadGenerator.counts();
    const u64 lost = m_forwarded.lost + m_outbox.counts().dropped;
    const MemReport memory = MemLedger::report();
    std::cerr << "analytics-host: " << ios.completed() << " I/Os (" << ios.reads << " reads, "
              << ios.writes << " writes, " << ios.failed << " failed), " << m_forwarded.written
              << " parcels written, " << lost << " lost" << rateShortfall(ios) << std::endl;
    if (memory.liveBlocks != 0 || memory.badReleases != 0) {
        std::cerr << "analytics-host: the memory ledger is not clean: " << memory << std::endl;
        return exitLost;
    }
    if (lost != 0) {
        return exitLost;
    }
    return ios.failed == 0 ? exitDone : exitFailed;
}

// Where a rate was asked for and not reached, within a twentieth.
std::string Host::rateShortfall(const LoadGenerator::Counts& ios) const {
    const double seconds = static_cast<double>(m_loadEndNs - m_loadStartNs) / nsPerSecond;
    const double made = static_cast<double>(ios.completed()) / seconds;
    if (m_options.rate == 0 || made >= 0.95 * m_options.rate || m_options.maxIos) {
        return "";
    }
    return "; " + std::to_string(static_cast<u64>(made)) + " of the " +
           std::to_string(m_options.rate) + " I/Os per second that were asked for";
}
