#include "common/infra/AIO.h"

#include "common/infra/Log.h"
#include "common/infra/Singleton.h"
#include "host/services/StorageLatency.h"

AIO::AIO() : m_latency(std::make_unique<StorageLatency>()) {}

AIO::~AIO() = default;

void AIO::mabeStorageLatencyAnalytics(StorageAnalyticsCounters& counters) {
    counters = m_latency->closePeriod().counters;
    if (!m_checked.exchange(true, std::memory_order_relaxed) && !m_latency->hasCounted()) {
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "no I/O was ever counted: code that makes I/Os counts them by AIO::countIo(), "
               "AIO::countFailedIo() or an AIO::Measure"
            << std::endl;
    }
}

void AIO::countIo(u64 latencyNs) {
    m_latency->countIo(latencyNs);
}

void AIO::countFailedIo(u64 latencyNs) {
    m_latency->countFailedIo(latencyNs);
}

AIO::Measure::Measure() : Measure(nullptr, monotonicNs()) {}

AIO::Measure::Measure(StorageLatency& set) : Measure(&set, monotonicNs()) {}

AIO::Measure::Measure(StorageLatency* set, u64 startNs)
    : m_own(Singleton<AIO, AIO>::instance()->latency()),
      m_set(set),
      m_startNs(startNs),
      m_inFlight(m_own, startNs) {
    if (set != nullptr) {
        m_inFlightOfSet.emplace(*set, startNs);
    }
}

// Counts the I/O before removing it from the I/Os in flight, so that a reading sees it in at least
// one of the two.
AIO::Measure::~Measure() {
    const u64 latencyNs = monotonicNs() - m_startNs;
    for (StorageLatency* counters : {&m_own, m_set}) {
        if (counters != nullptr) {
            m_failed ? counters->countFailedIo(latencyNs) : counters->countIo(latencyNs);
        }
    }
}

InFlightIo::InFlightIo(StorageLatency& latency, u64 startNs)
    : m_latency(latency), m_startNs(startNs) {
    m_latency.inFlight().add(*this);
}

InFlightIo::~InFlightIo() {
    m_latency.inFlight().remove(*this);
}
