#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The program's own classes, which have names that the analytics library uses as well. Whoever
// enters one of them by mistake ends the process.

class IMutex {
public:
    virtual void get();
    virtual void give();
    virtual ~IMutex();
};

class Mutex : public IMutex {
public:
    Mutex();
    void get() override;
    void give() override;
};

class Timer {
public:
    Timer();
    virtual void init();
    virtual std::uint64_t getTimestampMs();
    void addTimer(void (*callback)(std::size_t), std::size_t cookie, std::uint32_t delayMs,
                  bool once);
    void stop();
};

class AIO {
public:
    AIO();
    ~AIO();
    void countIo(std::uint64_t latencyNs);
};

class Tweaks {
public:
    Tweaks();
    void set(const std::string& name, const std::string& value);
};

class StringUtils {
public:
    static std::vector<std::string> splitStr(const std::string& text, char separator);
    static bool contains(const std::string& text, const std::string& part);
};

enum LogModule { ownModule };
enum LogLevel { ownLevel };
class LogItem {
public:
    LogItem(LogModule module, LogLevel level, const char* function, int detail) noexcept;
    ~LogItem();
    LogItem& flush() noexcept;
};

class Guard {
public:
    Guard(IMutex& mutex);
    ~Guard();
};

class MemShield {
public:
    MemShield();
    virtual bool isMemshieldActive();
    static bool bMemshieldActive;
};

template <typename I, typename T>
class Singleton {
public:
    static I* instance();
};
