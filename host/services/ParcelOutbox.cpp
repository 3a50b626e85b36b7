#include "common/infra/IParcelOutbox.h"

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Lock.h"
#include "common/infra/Log.h"
#include "common/infra/TrackedAllocation.h"

#include <algorithm>
#include <condition_variable>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace {

// Stands for no limit; longer waits would leave the range of the clock.
constexpr std::chrono::milliseconds longestWait = std::chrono::hours(24) * 365 * 100;

void destroy(IParcel* parcel) {
    if (parcel != nullptr) {
        TRACKED_DELETE(static_cast<AnalyticsParcel*>(parcel));
    }
}

// A queue in a block of fixed size, so that pushing allocates nothing and cannot fail.
class ParcelRing {
public:
    explicit ParcelRing(u64 capacity) : m_slots(capacity) {}

    u64 size() const { return m_size; }
    bool isEmpty() const { return m_size == 0; }
    bool isFull() const { return m_size == m_slots.size(); }

    // Not when the ring is full.
    void push(IParcel* parcel) {
        const u64 end = m_oldest + m_size;
        m_slots[end < m_slots.size() ? end : end - m_slots.size()] = parcel;
        ++m_size;
    }
    // Not when the ring is empty.
    IParcel* pop() {
        IParcel* parcel = m_slots[m_oldest];
        m_oldest = m_oldest + 1 < m_slots.size() ? m_oldest + 1 : 0;
        --m_size;
        return parcel;
    }

private:
    std::vector<IParcel*> m_slots;
    u64 m_oldest = 0;
    u64 m_size = 0;
};

// A run of drops begins with a push that finds the outbox full, and ends with the first push that
// does not, or before it when nothing is held any more. One thread at a time, but for the logging.
class DropRun {
public:
    // Counts a drop. True if it begins a run.
    bool add() { return ++m_length == 1; }
    // The length of the run that ends now, 0 if there is none.
    u64 end() { return m_length == 0 ? 0 : std::exchange(m_length, 0); }

    static void logBegin(u64 maxSize) {
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << " parcel outbox is full, the oldest parcels are dropped: maxSize=" << maxSize << " "
            << std::endl;
    }
    // Of no run if the length is 0. Inline, so that most pushes and pops make no call for it.
    static void logEnd(u64 length) {
        if (length > 0) {
            logLength(length);
        }
    }

private:
    __attribute__((noinline, cold)) static void logLength(u64 length) {
        LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
            << " parcel outbox is no longer full: dropped=" << length << " " << std::endl;
    }

    u64 m_length = 0;
};

} // namespace

struct ANALYTICS_HIDDEN ParcelOutbox::Impl {
    explicit Impl(u64 maximum) : maxSize(maximum), parcels(maximum) {}

    const u64 maxSize;
    std::condition_variable changed; // a parcel has come, or waits are over
    mutable CheckedMutex mutex;
    ParcelRing parcels ANALYTICS_GUARDED_BY(mutex);
    Counts counts ANALYTICS_GUARDED_BY(mutex);
    DropRun run ANALYTICS_GUARDED_BY(mutex);
    u64 waiting ANALYTICS_GUARDED_BY(mutex) = 0; // threads; each of them is woken by a push
    bool waitsAreOver ANALYTICS_GUARDED_BY(mutex) = false;
    std::function<void()> listener ANALYTICS_GUARDED_BY(mutex);

    IParcel* takeOldest(u64 Counts::*column);
};

// Null if nothing is held. `column` is where the parcel is counted.
IParcel* ParcelOutbox::Impl::takeOldest(u64 Counts::*column) {
    CheckedLock lock(mutex);
    if (parcels.isEmpty()) {
        return nullptr;
    }
    IParcel* parcel = parcels.pop();
    ++(counts.*column);
    const u64 endedRun = parcels.isEmpty() ? run.end() : 0;
    lock.unlock();

    DropRun::logEnd(endedRun);
    return parcel;
}

ParcelOutbox::ParcelOutbox(u64 maxSize) : m_impl(std::make_unique<Impl>(maxSize)) {
    if (maxSize == 0) {
        throw std::invalid_argument("ParcelOutbox: the maximum size must be at least 1");
    }
}

ParcelOutbox::~ParcelOutbox() {
    freeAndRemoveAllParcels();
}

RcStatus ParcelOutbox::pushParcel(IParcel* parcel, ParcelType type) {
    if (parcel == nullptr || type != KEL_ANALYTICS) {
        return RC_BAD_PARAMETERS;
    }
    CheckedLock lock(m_impl->mutex);
    const bool full = m_impl->parcels.isFull();
    const bool wasEmpty = m_impl->parcels.isEmpty();
    IParcel* dropped = full ? m_impl->parcels.pop() : nullptr;
    m_impl->parcels.push(parcel);
    ++m_impl->counts.pushed;
    m_impl->counts.dropped += full ? 1 : 0;
    const bool beginsRun = full && m_impl->run.add();
    const u64 endedRun = full ? 0 : m_impl->run.end();
    const bool awaited = m_impl->waiting > 0;
    if (wasEmpty && m_impl->listener) {
        m_impl->listener();
    }
    lock.unlock();

    if (awaited) { // all of them: the one that is woken may not be the one that pops
        m_impl->changed.notify_all();
    }
    destroy(dropped);
    if (beginsRun) {
        DropRun::logBegin(m_impl->maxSize);
    }
    DropRun::logEnd(endedRun);
    return RC_SUCCESS;
}

IParcel* ParcelOutbox::popParcel(ParcelType type) {
    return type == KEL_ANALYTICS ? m_impl->takeOldest(&Counts::popped) : nullptr;
}

std::vector<IParcel*> ParcelOutbox::popParcels(ParcelType type) {
    CheckedLock lock(m_impl->mutex);
    if (type != KEL_ANALYTICS) {
        return {};
    }
    std::vector<IParcel*> taken(m_impl->parcels.size());
    for (IParcel*& parcel : taken) {
        parcel = m_impl->parcels.pop();
    }
    m_impl->counts.popped += taken.size();
    const u64 endedRun = m_impl->run.end();
    lock.unlock();

    DropRun::logEnd(endedRun);
    return taken;
}

u64 ParcelOutbox::size() const {
    const CheckedLock lock(m_impl->mutex);
    return m_impl->parcels.size();
}

bool ParcelOutbox::isEmpty() const {
    return size() == 0;
}

u64 ParcelOutbox::getMaxSize() const {
    return m_impl->maxSize;
}

// One by one, since the destructor must not need memory for a list of them.
void ParcelOutbox::freeAndRemoveAllParcels() {
    for (u64 left = size(); left > 0; --left) {
        destroy(m_impl->takeOldest(&Counts::freed)); // null if another thread has taken some
    }
}

bool ParcelOutbox::waitForParcel(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() +
                     std::clamp(limit, std::chrono::milliseconds(0), longestWait);
    CheckedLock lock(m_impl->mutex);
    ++m_impl->waiting;
    while (!m_impl->waitsAreOver && m_impl->parcels.isEmpty() &&
           m_impl->changed.wait_until(lock, end) == std::cv_status::no_timeout) {
    }
    --m_impl->waiting;
    return !m_impl->parcels.isEmpty();
}

bool ParcelOutbox::waitForParcel() {
    return waitForParcel(longestWait);
}

void ParcelOutbox::stopWaiting() {
    {
        const CheckedLock lock(m_impl->mutex);
        m_impl->waitsAreOver = true;
    }
    m_impl->changed.notify_all();
}

void ParcelOutbox::setListener(std::function<void()> listener) {
    const CheckedLock lock(m_impl->mutex);
    m_impl->listener.swap(listener);
}

ParcelOutbox::Counts ParcelOutbox::counts() const {
    const CheckedLock lock(m_impl->mutex);
    Counts counts = m_impl->counts;
    counts.held = m_impl->parcels.size();
    return counts;
}
