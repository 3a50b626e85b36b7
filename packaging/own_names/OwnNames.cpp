#include "OwnNames.h"

#include <cstdlib>

IMutex::~IMutex() = default;
void IMutex::get() {
    std::abort();
}
void IMutex::give() {
    std::abort();
}
Mutex::Mutex() {
    std::abort();
}
void Mutex::get() {
    std::abort();
}
void Mutex::give() {
    std::abort();
}
Timer::Timer() {
    std::abort();
}
void Timer::init() {
    std::abort();
}
std::uint64_t Timer::getTimestampMs() {
    std::abort();
}
void Timer::addTimer(void (* /*callback*/)(std::size_t), std::size_t /*cookie*/,
                     std::uint32_t /*delayMs*/, bool /*once*/) {
    std::abort();
}
void Timer::stop() {
    std::abort();
}
AIO::AIO() {
    std::abort();
}
AIO::~AIO() {
    std::abort();
}
void AIO::countIo(std::uint64_t /*latencyNs*/) {
    std::abort();
}
Tweaks::Tweaks() {
    std::abort();
}
void Tweaks::set(const std::string& /*name*/, const std::string& /*value*/) {
    std::abort();
}
std::vector<std::string> StringUtils::splitStr(const std::string& /*text*/, char /*separator*/) {
    std::abort();
}
bool StringUtils::contains(const std::string& /*text*/, const std::string& /*part*/) {
    std::abort();
}
LogItem::LogItem(LogModule /*module*/, LogLevel /*level*/, const char* /*function*/,
                 int /*detail*/) noexcept {
    std::abort();
}
LogItem::~LogItem() {
    std::abort();
}
LogItem& LogItem::flush() noexcept {
    std::abort();
}
Guard::Guard(IMutex& /*mutex*/) {
    std::abort();
}
Guard::~Guard() {
    std::abort();
}
MemShield::MemShield() {
    std::abort();
}
bool MemShield::isMemshieldActive() {
    std::abort();
}
template <typename I, typename T>
I* Singleton<I, T>::instance() {
    std::abort();
}

bool MemShield::bMemshieldActive = true;

template Timer* Singleton<Timer, Timer>::instance();
template AIO* Singleton<AIO, AIO>::instance();
template MemShield* Singleton<MemShield, MemShield>::instance();
