#pragma once

#include "host/forwarding/OutputFile.h"
#include "host/forwarding/ParcelForwarder.h"
#include "host/program/LoadGenerator.h"
#include "host/program/Options.h"
#include "host/program/RunSummary.h"
#include "host/program/ScratchFile.h"
#include "host/program/StopRequest.h"
#include "host/services/TweaksFile.h"

#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Timer.h"
#include "common/infra/TrackedAllocation.h"

#include <functional>
#include <memory>
#include <string>

// The runnable host: its constructor sets everything up, run() lets it work until it is told to
// stop.
//
//     load --> AIO counters --> generator --> scheduler --> outbox --> forwarder --> output
//                                                ^
//                                              timer
class Host {
public:
    // Throws std::exception, with a message for the user, if something cannot be had.
    explicit Host(const Options& options);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Returns the exit code of the process.
    int run();

private:
    ScratchFile makeScratchFile() const;
    void warnOfFolder() const;
    void start();
    void scheduleReports();
    TrackedPtr<IPeriodicAnalyticsParcelFinalizer>
    makeFinalizer(TrackedPtr<IPeriodicAnalyticsParcelFinalizer> finalizer);
    void stopLoad();
    void stop();
    int summarize() const;
    RunSummary summary() const;
    std::string rateShortfall(const LoadGenerator::Counts& ios) const;

    const Options m_options;
    Timer& m_timer;
    ParcelOutbox& m_outbox;

    OutputFile m_output;
    StopRequest m_stopRequest;
    std::unique_ptr<TweaksFile> m_tweaksFile;
    LoadGenerator m_loadGenerator; // before the scratch file is filled, which may take minutes
    ScratchFile m_scratchFile;
    IoEngine::Kind m_ioEngine = IoEngine::Kind::Automatic; // the one that makes the I/Os
    std::unique_ptr<ParcelForwarder> m_forwarder;
    std::unique_ptr<PeriodicAnalyticsScheduler> m_scheduler;

    // The timer's thread writes them; read when the timer has stopped.
    RunTotals m_totals;
    bool m_lastReportMade = false;

    ParcelForwarder::Counts m_forwarded;
    u64 m_loadStartNs = 0;
    u64 m_loadEndNs = 0;
};
