#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <cstddef>
#include <ctime>
#include <map>
#include <string>
#include <utility>

class ANALYTICS_EXPORT ITimer {
public:
    typedef std::size_t Cookie;
    typedef void (*Callback)(Cookie);

    static const u32 JIFFIES_PER_SEC = 100;
    static const u64 NEVER = 18446744073709551615ull;

    virtual void init() = 0;
    virtual u64 getTimestampNano() = 0;
    virtual u64 getTimestampMicro() = 0;
    virtual u64 getTimestampMs() = 0;
    virtual u64 getClockMs() = 0;
    virtual u64 getLastTimestampMs_Inaccurate(bool) = 0;
    virtual void addTimer(Callback, Cookie, u32, bool) = 0;
    virtual u64 getCurentThreadTickCount() = 0;
    virtual u64 getCurentProcessTickCount() = 0;
    virtual void setRealClockTime(u64) = 0;
    virtual u64 getRealTimestampMs() = 0;
    virtual u64 getJiffies() = 0;
    virtual bool utcStringToTm(const std::string&, tm&) = 0;

protected:
    ~ITimer() = default;
};

// This service runs in simulated time: the program says how far.
class ANALYTICS_EXPORT Timer final : public ITimer {
public:
    void init() override {}
    u64 getTimestampNano() override { return m_nowMs * 1000000; }
    u64 getTimestampMicro() override { return m_nowMs * 1000; }
    u64 getTimestampMs() override { return m_nowMs; }
    u64 getClockMs() override { return m_nowMs; }
    u64 getLastTimestampMs_Inaccurate(bool) override { return m_nowMs; }
    void addTimer(Callback callback, Cookie cookie, u32 delayMs, bool) override {
        m_expiries.insert({m_nowMs + delayMs, {callback, cookie}});
    }
    u64 getCurentThreadTickCount() override { return 0; }
    u64 getCurentProcessTickCount() override { return 0; }
    void setRealClockTime(u64) override {}
    u64 getRealTimestampMs() override { return m_nowMs; }
    u64 getJiffies() override { return m_nowMs / 10; }
    bool utcStringToTm(const std::string&, tm&) override { return false; }

    void runUntil(u64 timeMs);

private:
    u64 m_nowMs = 0;
    std::multimap<u64, std::pair<Callback, Cookie>> m_expiries; // by due time
};
