#include "host/program/Host.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/AIO.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Log.h"
#include "common/infra/Singleton.h"
#include "common/infra/Timer.h"
#include "common/infra/TrackedAllocation.h"
#include "host/program/ExitCodes.h"
#include "host/program/RunReports.h"
#include "host/program/Schedule.h"
#include "host/program/WaitNotice.h"
#include "host/services/Clock.h"
#include "host/services/HostServices.h"
#include "host/services/MemLedger.h"
#include "host/services/StorageLatency.h"
#include "host/services/StorageReportFinalizer.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace {

LoadGenerator::Load loadOf(const Options& options) {
    return {static_cast<u32>(options.blockSize),
            options.queueDepth,
            options.readPercent,
            options.rate,
            options.maxIos,
            IoEngine::available(options.ioEngine, options.queueDepth)};
}

// A whole number of blocks.
u64 fileSizeOf(const Options& options) {
    return options.size / options.blockSize * options.blockSize;
}

// The kernel's reason alone does not tell what it refused.
template <typename Start>
void start(const std::string& what, Start doStart) {
    try {
        doStart();
    } catch (const std::system_error& error) {
        throw std::runtime_error("cannot start " + what + ": " + error.what());
    }
}

// A line of the program's own.
std::string say(const std::string& text) {
    return "analytics-host: " + text + "\n";
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
      m_forwarding(options),
      m_stopRequest(options.outputFile.empty() ? std::function<void()>()
                                               : [this] { m_forwarding.requestReopen(); }),
      m_tweaksFile(loadTweaks(options)),
      m_loadGenerator(loadOf(options)),
      m_scratchFile(makeScratchFile()),
      m_owesPage(!options.htmlFile.empty()) {}

Host::~Host() {
    m_loadGenerator.stop(); // it uses the scratch file
    m_timer.stop();         // its callbacks hold the scheduler's address
}

int Host::run() {
    if (m_stopRequest.isRequested()) { // before there was anything to report
        return 128 + m_stopRequest.signal();
    }
    warnOfFolder();
    start();
    m_stopRequest.wait();
    stop();
    const bool isPageWritten = writePage();
    const int exitCode = summarize();
    return isPageWritten || exitCode != exitDone ? exitCode : exitFailed;
}

// A signal ends the filling.
ScratchFile Host::makeScratchFile() const {
    const u64 size = fileSizeOf(m_options);
    std::atomic<u64> filled{0};
    const WaitNotice notice([&] {
        return "filling the scratch file, " + std::to_string(filled >> 20U) + " of " +
               std::to_string(size >> 20U) + " MiB";
    });
    const auto progress = [&](u64 filledBytes) {
        filled = filledBytes;
        return !m_stopRequest.isRequested();
    };
    return {m_options.path, size, progress, m_options.blockSize};
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
    ::start("the thread that limits the end",
            [this] { m_shutdown = std::make_unique<ShutdownWatch>([this] { endAtDeadline(); }); });
    ::start("the forwarder's thread",
            [this] { m_forwarding.start(m_outbox, [this] { m_stopRequest.request(); }); });
    if (m_tweaksFile) {
        ::start("following the tunables file", [this] { m_tweaksFile->follow(); });
    }
    ::start("the timer's thread", [this] { scheduleReports(); });
    m_loadStartNs = monotonicNs();
    ::start("the load with a queue depth of " + std::to_string(m_options.queueDepth),
            [this] { m_loadGenerator.start(m_scratchFile.descriptor(), fileSizeOf(m_options)); });
    m_ioEngine = m_loadGenerator.ioEngine();
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
    auto* reports = TRACKED_NEW(RunReports)(
        finalizer.get(), m_options.reports, [this] { stopLoad(); },
        [this](bool isLast) {
            m_totals.add(Singleton<AIO, AIO>::instance()->latency().closedPeriod());
            if (Singleton<DynamicTweaks, DynamicTweaks>::instance()->t_disablePeriodicAnalytics) {
                m_forwarding.addDiscarded(); // the scheduler looks at it next
            }
            if (isLast) {
                m_owesReport = false;
                m_stopRequest.request();
            }
        });
    finalizer.release();
    finalizer.reset(reports);
    return finalizer;
}

void Host::stopLoad() {
    const WaitNotice notice([this] {
        return "waiting for " + std::to_string(m_loadGenerator.inFlight()) +
               " I/Os in flight; a further signal ends at once";
    });
    m_loadGenerator.stop();
}

void Host::stop() {
    m_shutdown->begin(std::chrono::seconds(m_options.forwarding.shutdownTimeoutSecs));
    stopLoad();
    m_loadEndNs = monotonicNs();
    m_timer.stop();
    if (m_owesReport) {
        m_scheduler->handleReachedTimeout(); // the running period; what it arms is dropped
        m_owesReport = false;
    }
    m_scheduler.reset();
    sendMaxima(m_loadGenerator.maxima());
    const WaitNotice notice([] {
        return std::string("waiting for the reports' reader; a further signal ends at once");
    });
    if (!m_forwarding.stop(m_shutdown->left())) {
        endAtDeadline();
    }
    m_forwarding.close();
    m_outbox.freeAndRemoveAllParcels(); // at the deadline; they are counted as waiting
    m_tweaksFile.reset();
}

// Waits for nobody, and ends also without the memory to say why.
void Host::endAtDeadline() const noexcept {
    int exitCode = exitDone;
    try {
        exitCode = tellDeadline();
    } catch (const std::exception&) { // it stays a failure
        exitCode = exitFailed;
    }
    _exit(exitCode);
}

int Host::tellDeadline() const {
    const u64 inFlight = m_loadGenerator.inFlight();
    std::string owed;
    if (inFlight > 0) {
        owed += say(std::to_string(inFlight) + " I/Os are in flight: the end took too long");
    }
    if (m_owesReport) {
        owed += say("the running period is not reported: the end took too long");
    }
    if (m_owesPage) {
        owed += say("the page is not written: the end took too long");
    }
    std::cerr << owed << std::flush;
    tellAccount();
    if (m_forwarding.numbers().lost() != 0) {
        return exitLost;
    }
    return owed.empty() && m_loadGenerator.counts().failed == 0 ? exitDone : exitFailed;
}

// Answers whether it could be written, and says why not.
bool Host::writePage() {
    bool isWritten = true;
    try {
        m_forwarding.writePage();
    } catch (const std::runtime_error& error) {
        isWritten = false;
        std::cerr << "analytics-host: " << error.what() << std::endl;
    }
    m_owesPage = false;
    return isWritten;
}

void Host::tellAccount() const {
    const AccountNumbers numbers = m_forwarding.numbers();
    const std::string sums = numbers.text();
    const std::size_t half = sums.find(" delivered=");
    std::string text =
        say("account: " + sums.substr(0, half)) + say("account:" + sums.substr(half));
    for (const auto& [reason, count] : numbers.failures) {
        text += say("failed for good: " + std::to_string(count) + ", " + reason);
    }
    if (numbers.discarded + numbers.outputLost != 0) {
        text += say("beside the account: discarded=" + std::to_string(numbers.discarded) +
                    " outputLost=" + std::to_string(numbers.outputLost));
    }
    std::cerr << text << std::flush;
}

int Host::summarize() const {
    const LoadGenerator::Counts ios = m_loadGenerator.counts();
    const AccountNumbers account = m_forwarding.numbers();
    const u64 lost = account.lost();
    const MemReport memory = MemLedger::report();
    const std::string shortfall =
        rateShortfall(m_options, ios.completed(), m_loadEndNs - m_loadStartNs);
    std::cerr << summary().text()
              << say(std::to_string(ios.completed()) + " I/Os: " + std::to_string(ios.reads) +
                     " reads, " + std::to_string(ios.writes) + " writes, " +
                     std::to_string(ios.failed) + " failed")
              << say(std::to_string(account.delivered) + " parcels written, " +
                     std::to_string(lost) + " lost");
    tellAccount();
    std::cerr << (shortfall.empty() ? "" : say(shortfall)) << std::flush;
    if (memory.liveBlocks != 0 || memory.badReleases != 0) {
        std::cerr << "analytics-host: the memory ledger is not clean: " << memory << std::endl;
        return exitLost;
    }
    if (lost != 0) {
        return exitLost;
    }
    return ios.failed == 0 ? exitDone : exitFailed;
}

RunSummary Host::summary() const {
    return {m_totals, (m_loadEndNs - m_loadStartNs) / nsPerMs, m_scratchFile.fileSystem(),
            m_ioEngine, m_options};
}
