#include "host/program/LoadGenerator.h"

#include "common/infra/Log.h"
#include "host/services/Clock.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <stdexcept>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

// Refuses more than the physical memory: the kernel might grant it and kill the process when it is
// used.
AlignedBuffer makeBuffers(const LoadGenerator::Load& load) {
    const u64 bytes = u64{load.blockSize} * load.queueDepth;
    const u64 memory =
        static_cast<u64>(sysconf(_SC_PHYS_PAGES)) * static_cast<u64>(sysconf(_SC_PAGESIZE));
    try {
        return AlignedBuffer(bytes <= memory ? bytes : throw std::bad_alloc());
    } catch (const std::bad_alloc&) {
        throw std::runtime_error("no memory for " + std::to_string(load.queueDepth) +
                                 " buffers of " + std::to_string(load.blockSize) +
                                 " bytes (expected fewer or smaller ones, see --queue-depth and "
                                 "--block-size)");
    }
}

} // namespace

LoadGenerator::LoadGenerator(const Load& load)
    : m_load(load),
      m_buffers(makeBuffers(load)),
      m_slots(load.queueDepth),
      m_random(std::random_device{}()) {
    m_idle.reserve(m_slots.size());
    m_batch.reserve(m_slots.size());
    for (std::size_t i = 0; i < m_slots.size(); ++i) {
        Slot& slot = m_slots[i];
        slot.generator = this;
        slot.buffer = m_buffers.data() + i * load.blockSize;
        slot.length = load.blockSize;
        slot.completed = ioCompleted;
        m_idle.push_back(&slot);
    }
}

LoadGenerator::~LoadGenerator() {
    stop();
}

void LoadGenerator::start(int file, u64 fileSize) {
    const CheckedLock oneAtATime(m_lifeMutex);
    {
        const CheckedLock lock(m_mutex);
        m_blocks = fileSize / m_load.blockSize;
    }
    m_engine.open({file, m_load.queueDepth, m_buffers.data(), m_buffers.size(), m_load.ioEngine});
    if (m_load.rate != 0) {
        m_pacer = std::thread(&LoadGenerator::pace, this);
    } else {
        const CheckedLock lock(m_mutex);
        issue(m_slots.size());
    }
}

void LoadGenerator::stop() {
    const CheckedLock oneAtATime(m_lifeMutex);
    CheckedLock lock(m_mutex);
    m_stopping = true;
    m_changed.notify_all();
    while (!areAllIdle()) {
        m_changed.wait(lock);
    }
    std::thread pacer = std::move(m_pacer);
    lock.unlock();
    if (pacer.joinable()) {
        pacer.join();
    }
    m_engine.close();
}

void LoadGenerator::waitUntilIdle() {
    CheckedLock lock(m_mutex);
    while (mayIssue() || !areAllIdle()) {
        m_changed.wait(lock);
    }
}

u64 LoadGenerator::inFlight() const {
    const u64 completed = counts().completed(); // read first: it does not exceed what was issued
    return m_issued - completed;
}

LoadGenerator::Counts LoadGenerator::counts() const {
    return {m_reads, m_writes, m_failed};
}

LoadGenerator::Maxima LoadGenerator::maxima() const {
    const CheckedLock lock(m_mutex);
    return {m_longestIoUs, m_deepestQueue};
}

// An I/O that is due while all slots are busy is submitted when a slot becomes free. At most a
// tenth of a second of I/Os is kept waiting, so a stall is not made up for.
void LoadGenerator::pace() {
    pthread_setname_np(pthread_self(), "pacer");
    constexpr std::chrono::nanoseconds shortestBeat = std::chrono::milliseconds(1);
    const auto perIo = std::chrono::nanoseconds(std::chrono::seconds(1)) / m_load.rate;
    const auto beat = std::max(perIo, shortestBeat);
    const double dueAtABeat = std::chrono::duration<double>(beat).count() * m_load.rate;
    const double mostOwed = std::max(m_load.queueDepth, m_load.rate / 10);

    CheckedLock lock(m_mutex);
    auto next = Clock::now() + beat;
    while (mayIssue()) {
        if (m_changed.wait_until(lock, next) == std::cv_status::no_timeout) {
            continue; // stopping, or woken for nothing
        }
        const auto late = (Clock::now() - next) / beat;
        next += (late + 1) * beat;
        m_owed = std::min(m_owed + dueAtABeat * static_cast<double>(late + 1), mostOwed);
        issueOwed();
    }
}

void LoadGenerator::issueOwed() {
    if (m_owed >= 1) {
        const u64 issuedBefore = m_issued;
        issue(static_cast<u64>(m_owed));
        m_owed -= static_cast<double>(m_issued - issuedBefore);
    }
}

bool LoadGenerator::mayIssue() const {
    return !m_stopping && m_issued < m_load.maxIos.value_or(~u64{0});
}

// Submits up to `count` I/Os.
void LoadGenerator::issue(u64 count) {
    m_batch.clear();
    while (m_batch.size() < count && mayIssue() && !m_idle.empty()) {
        Slot& slot = *m_idle.back();
        m_idle.pop_back();
        aim(slot);
        m_batch.push_back(&slot);
        ++m_issued;
    }
    const RcStatus status = m_engine.submit(m_batch.data(), m_batch.size());
    if (status != RC_SUCCESS) { // nothing was taken, so nothing will complete
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "I/Os are refused: status=" << u32{status} << std::endl;
        for (IoRequest* refused : m_batch) {
            m_idle.push_back(static_cast<Slot*>(refused));
        }
        m_issued -= m_batch.size();
        m_stopping = true;
    }
    m_deepestQueue.update(m_slots.size() - m_idle.size());
}

void LoadGenerator::aim(Slot& slot) {
    const bool reads = m_random() % 100 < m_load.readPercent;
    slot.operation = reads ? IoRequest::Read : IoRequest::Write;
    slot.offset = m_random() % m_blocks * m_load.blockSize;
}

void LoadGenerator::ioCompleted(IoRequest& request, int result) {
    auto& slot = static_cast<Slot&>(request);
    slot.generator->completed(slot, result);
}

void LoadGenerator::completed(Slot& slot, int result) {
    const CheckedLock lock(m_mutex);
    countResult(slot, result);
    m_longestIoUs.update(slot.latencyNs / nsPerUs);
    m_idle.push_back(&slot);
    m_load.rate == 0 ? issue(1) : issueOwed();
    if (!mayIssue() && areAllIdle()) {
        m_changed.notify_all();
    }
}

void LoadGenerator::countResult(const Slot& slot, int result) {
    const bool isRead = slot.operation == IoRequest::Read;
    ++(isRead ? m_reads : m_writes);
    const u64 nowNs = monotonicNs();
    if (!slot.failed) {
        m_failureLog.succeeded(nowNs);
        return;
    }
    ++m_failed;
    m_failureLog.failed({isRead, slot.offset, result, slot.length}, nowNs);
}
