#include "host/forwarding/Forwarder.h"

#include "common/infra/IParcelOutbox.h"
#include "common/infra/Log.h"
#include "host/services/Clock.h"

#include <pthread.h>

#include <ctime>
#include <exception>
#include <utility>

namespace {

constexpr u64 failureRetryNs = nsPerSecond;

} // namespace

Forwarder::Forwarder(ParcelOutbox& outbox, std::unique_ptr<ISink> engine,
                     std::vector<ISink*> beside, const ForwarderOptions& options)
    : m_outbox(outbox),
      m_account(outbox),
      m_engine(std::move(engine)),
      m_courier(m_account, m_answers, *m_engine, std::move(beside), options) {
    m_thread = std::thread(&Forwarder::run, this);
    m_outbox.setListener([this] { m_wakeup.wake(); });
    m_wakeup.wake(); // for what was pushed meanwhile
}

Forwarder::~Forwarder() {
    if (m_thread.joinable()) {
        m_flushEndNs = 0;
        m_deadlineNs = 0;
        m_wakeup.wake();
        m_thread.join();
    }
    m_outbox.setListener(nullptr);
    m_engine.reset(); // it refers to records of the courier
}

bool Forwarder::stop(std::chrono::milliseconds limit) {
    const auto limitNs = static_cast<u64>(std::chrono::nanoseconds(limit).count());
    const u64 nowNs = monotonicNs();
    m_flushEndNs = nowNs + limitNs / 10 * 8;
    m_deadlineNs = nowNs + limitNs / 10 * 9; // the rest is for the return
    m_wakeup.wake();
    {
        CheckedLock lock(m_mutex);
        const auto hasEnded = [this] {
            m_mutex.assumeHeld();
            return m_hasEnded;
        };
        if (!m_changed.wait_for(lock, limit, hasEnded)) {
            return false;
        }
    }
    m_thread.join();
    return true;
}

void Forwarder::run() {
    pthread_setname_np(pthread_self(), "forwarder");
    while (m_deadlineNs == Wakeup::never) {
        m_wakeup.waitUntil(step());
    }
    m_courier.hurry();
    stepUntil(m_flushEndNs);
    m_courier.addAccount();
    stepUntil(m_deadlineNs);
    const CheckedLock lock(m_mutex);
    m_hasEnded = true;
    m_changed.notify_all();
}

// At least one step.
void Forwarder::stepUntil(u64 momentNs) {
    for (u64 nextNs = step(); !m_courier.isIdle() && monotonicNs() < momentNs; nextNs = step()) {
        m_wakeup.waitUntil(std::min(nextNs, momentNs));
    }
}

// A step that runs out of memory is begun anew.
u64 Forwarder::step() {
    try {
        return m_courier.step(monotonicNs(), readClockNs(CLOCK_REALTIME) / nsPerMs);
    } catch (const std::exception& error) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "forwarding goes on after a second: " << error.what() << std::endl;
        return monotonicNs() + failureRetryNs;
    }
}
