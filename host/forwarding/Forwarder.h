#pragma once

#include "common/infra/Export.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Lock.h"
#include "host/forwarding/Account.h"
#include "host/forwarding/AnswerBox.h"
#include "host/forwarding/Courier.h"
#include "host/forwarding/Wakeup.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>
#include <vector>

// The consumer of the outbox: a thread that forwards the parcels pushed into it, until stop().
//
//     ForwarderOptions options;
//     options.spool = SpoolOptions{"/var/lib/service/spool"};
//     Forwarder forwarder(outbox, makeKafkaSink(settings), {}, options);
//     ...
//     forwarder.stop(std::chrono::seconds(5));
//     std::cerr << forwarder.account().numbers().text() << std::endl;
class ANALYTICS_TAG Forwarder {
public:
    // Sends each record to `engine`, and each accepted record to the sinks in `beside`, which must
    // answer within send(). These and the outbox must outlive this, and nobody else takes parcels
    // out of the outbox. Throws std::runtime_error, with path and reason, if the spool cannot be
    // opened.
    Forwarder(ParcelOutbox& outbox, std::unique_ptr<ISink> engine, std::vector<ISink*> beside,
              const ForwarderOptions& options);
    // Waits for the running call of a sink, and destroys `engine`. Records that still wait in
    // memory are lost.
    ~Forwarder();
    Forwarder(const Forwarder&) = delete;
    Forwarder& operator=(const Forwarder&) = delete;

    // Forwards what the outbox holds, then the account as a parcel of its own, and ends the thread.
    // Returns within about `limit`, with records waiting if the engine has not taken them all.
    // False: the thread is still in a sink's call, and a process at its deadline ends without it,
    // by _exit(). Once, by one thread.
    bool stop(std::chrono::milliseconds limit);

    // Any thread.
    Account& account() { return m_account; }

private:
    void run();
    u64 step();
    void stepUntil(u64 momentNs);

    ParcelOutbox& m_outbox;
    Account m_account;
    Wakeup m_wakeup;
    AnswerBox m_answers{m_wakeup};
    std::unique_ptr<ISink> m_engine;
    Courier m_courier;

    std::atomic<u64> m_deadlineNs{Wakeup::never}; // never: go on
    std::atomic<u64> m_flushEndNs{Wakeup::never}; // the account comes then at the latest

    CheckedMutex m_mutex;
    std::condition_variable m_changed;
    bool m_hasEnded ANALYTICS_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};
