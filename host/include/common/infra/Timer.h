#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <cstddef>
#include <ctime>
#include <memory>
#include <string>

// The host's clock and timer service, reached as Singleton<ITimer, Timer>. Every operation may be
// called from any thread, addTimer() also from inside a callback. The timer is never deleted
// through this interface.
class ANALYTICS_EXPORT ITimer {
public:
    using Cookie = std::size_t; // handed back to the callback unchanged
    using Callback = void (*)(Cookie);

    static constexpr u32 JIFFIES_PER_SEC = 100;
    static constexpr u64 NEVER = ~u64{0};

    // Prepares the service; optional, and harmless when repeated.
    virtual void init() = 0;

    // Time stamps: never run backwards.
    virtual u64 getTimestampNano() = 0;
    virtual u64 getTimestampMicro() = 0;
    virtual u64 getTimestampMs() = 0;
    // Milliseconds of the monotonic clock.
    virtual u64 getClockMs() = 0;
    // The last time stamp that anybody read, without reading a clock; `refresh` reads it anew.
    virtual u64 getLastTimestampMs_Inaccurate(bool refresh) = 0;

    // Arms one expiry: `delayMs` milliseconds from now, never earlier, the callback is called with
    // the cookie from a thread of the service, not from inside addTimer(). With `once` false it is
    // armed again with the same delay whenever the callback has returned. There is no cancellation.
    virtual void addTimer(Callback callback, Cookie cookie, u32 delayMs, bool once) = 0;

    // Processor time used by the calling thread and by the process, in nanoseconds.
    virtual u64 getCurentThreadTickCount() = 0;
    virtual u64 getCurentProcessTickCount() = 0;

    // The service's wall clock in milliseconds since the Unix epoch. Setting it moves this clock
    // only, neither the system's nor the time stamps.
    virtual void setRealClockTime(u64 realTimeMs) = 0;
    virtual u64 getRealTimestampMs() = 0;

    // Hundredths of a second of the monotonic clock.
    virtual u64 getJiffies() = 0;

    // Parses "YYYY-MM-DD HH:MM:SS" or "YYYY-MM-DDTHH:MM:SSZ". False, with `result` untouched, if
    // the text is no such date.
    virtual bool utcStringToTm(const std::string& text, tm& result) = 0;

protected:
    ~ITimer() = default;
};

// The reference host's timer. One thread, started by the first addTimer() or by init(), sleeps
// until the earliest expiry and does not wake while none is due. Callbacks run one after the other,
// in the order of their due times.
//
// Time stamps are milliseconds since the Unix epoch as read once at construction, carried on by the
// monotonic clock: they read as dates, and a step of the system clock does not touch them.
//
// A callback that throws is logged and delivered again after 1 s, doubling up to 60 s, until it
// returns: one failed expiry must not end a periodic report. Other expiries are not held up.
class ANALYTICS_EXPORT Timer final : public ITimer {
public:
    Timer();
    ~Timer(); // stops; not from inside a callback
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void init() override;
    u64 getTimestampNano() override;
    u64 getTimestampMicro() override;
    u64 getTimestampMs() override;
    u64 getClockMs() override;
    u64 getLastTimestampMs_Inaccurate(bool refresh) override;
    void addTimer(Callback callback, Cookie cookie, u32 delayMs, bool once) override;
    u64 getCurentThreadTickCount() override;
    u64 getCurentProcessTickCount() override;
    void setRealClockTime(u64 realTimeMs) override;
    u64 getRealTimestampMs() override;
    u64 getJiffies() override;
    bool utcStringToTm(const std::string& text, tm& result) override;

    // Drops the pending expiries and waits for the callback that is running (unless it is the
    // caller). After it no callback runs, and addTimer() does nothing: objects whose addresses are
    // cookies can be destroyed.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
