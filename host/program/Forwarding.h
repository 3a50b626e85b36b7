#pragma once

#include "common/infra/IParcelOutbox.h"
#include "common/infra/Lock.h"
#include "host/forwarding/Forwarder.h"
#include "host/forwarding/OutputFile.h"
#include "host/forwarding/PrometheusEndpoint.h"
#include "host/program/Options.h"
#include "host/program/RunPage.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

// Where the program's reports go, as the options say: to an engine or, without one, to the output.
// Beside an engine is the output; beside both are Prometheus and the page of the run.
class Forwarding {
public:
    // Opens the output, the page's file, the engine's client and the endpoint. Throws
    // std::exception, with a message for the user, if one of them cannot be had.
    explicit Forwarding(const Options& options);
    ~Forwarding();
    Forwarding(const Forwarding&) = delete;
    Forwarding& operator=(const Forwarding&) = delete;

    // Forwards what is pushed from then on. `onOutputFailure` is called on the forwarder's thread
    // when nothing but the output takes the reports, and it does not. Throws like the constructor.
    void start(ParcelOutbox& outbox, const std::function<void()>& onOutputFailure);
    // Flushes within `limit`; what waits then stays where it is. False: a sink does not return.
    bool stop(std::chrono::milliseconds limit);
    // After a stop that was true: writes the page of the run, if one is wanted. Throws
    // std::runtime_error, with path and reason.
    void writePage() const;
    // After a stop that was true: closes what is open. The account stays as it was.
    void close();

    // Any thread.
    void requestReopen() { m_output.requestReopen(); }
    void addDiscarded() { m_forwarder->account().addDiscarded(); }
    AccountNumbers numbers() const;

private:
    std::vector<ISink*> beside();

    const Options m_options;
    OutputFile m_output;
    std::unique_ptr<RunPage> m_page;                 // null: none
    std::unique_ptr<IPrometheusEndpoint> m_endpoint; // null: none
    std::unique_ptr<ISink> m_engine;                 // until it is the forwarder's; null: none
    std::unique_ptr<ISink> m_besideOutput;           // null: none
    std::unique_ptr<Forwarder> m_forwarder;

    mutable CheckedMutex m_mutex;
    std::optional<AccountNumbers> m_last ANALYTICS_GUARDED_BY(m_mutex); // after the stop
};
