#pragma once

#include "host/program/Forwarding.h"
#include "host/program/LoadGenerator.h"
#include "host/program/Options.h"
#include "host/program/RunSummary.h"
#include "host/program/ScratchFile.h"
#include "host/program/ShutdownWatch.h"
#include "host/program/StopRequest.h"
#include "host/services/TweaksFile.h"

#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Timer.h"
#include "common/infra/TrackedAllocation.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

// The runnable host: its constructor sets everything up, run() lets it work until it is told to
// stop.
//
//     load --> AIO counters --> generator --> scheduler --> outbox --> forwarding
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
    [[noreturn]] void endAtDeadline() const noexcept;
    int tellDeadline() const;
    int summarize() const;
    RunSummary summary() const;
    bool writePage();
    void tellAccount() const;

    const Options m_options;
    Timer& m_timer;
    ParcelOutbox& m_outbox;

    Forwarding m_forwarding;
    StopRequest m_stopRequest;
    std::unique_ptr<TweaksFile> m_tweaksFile;
    LoadGenerator m_loadGenerator; // before the scratch file is filled, which may take minutes
    ScratchFile m_scratchFile;
    IoEngine::Kind m_ioEngine = IoEngine::Kind::Automatic; // the one that makes the I/Os
    std::unique_ptr<PeriodicAnalyticsScheduler> m_scheduler;

    // The timer's thread writes them; read when the timer has stopped.
    RunTotals m_totals;

    // Read by the watch.
    std::atomic<bool> m_owesReport{true}; // of the last period
    std::atomic<bool> m_owesPage;

    std::unique_ptr<ShutdownWatch> m_shutdown; // null before the start
    u64 m_loadStartNs = 0;
    u64 m_loadEndNs = 0;
};
