// The service's infrastructure: timer, outbox, log and texts. The rest stands by itself, so that a
// test can leave it out.

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Log.h"
#include "common/infra/StringUtils.h"
#include "common/infra/Timer.h"
#include "common/infra/TrackedAllocation.h"

#include <iostream>

void Timer::runUntil(u64 timeMs) {
    while (!m_expiries.empty() && m_expiries.begin()->first <= timeMs) {
        const auto [dueMs, expiry] = *m_expiries.begin();
        m_expiries.erase(m_expiries.begin());
        m_nowMs = dueMs;
        expiry.first(expiry.second);
    }
    m_nowMs = timeMs;
}

RcStatus ParcelOutbox::pushParcel(IParcel* parcel, ParcelType) {
    if (size() >= m_maxSize) {
        // Nobody would free a parcel that is refused: the scheduler does not look at the status.
        TRACKED_DELETE(static_cast<AnalyticsParcel*>(parcel));
        return RC_SUCCESS;
    }
    m_parcels.push_back(parcel);
    return RC_SUCCESS;
}

IParcel* ParcelOutbox::popParcel(ParcelType) {
    if (m_parcels.empty()) {
        return nullptr;
    }
    IParcel* oldest = m_parcels.front();
    m_parcels.pop_front();
    return oldest;
}

std::deque<IParcel*> ParcelOutbox::popParcels(ParcelType) {
    std::deque<IParcel*> all;
    all.swap(m_parcels);
    return all;
}

void ParcelOutbox::freeAndRemoveAllParcels() {
    for (IParcel* parcel : popParcels(KEL_ANALYTICS)) {
        TRACKED_DELETE(static_cast<AnalyticsParcel*>(parcel));
    }
}

LogItem::Buffer::Buffer(LogModule module, LogLevel level, const char* function)
    : m_module(module), m_level(level), m_function(function) {}

int LogItem::Buffer::sync() {
    std::cerr << m_module << '/' << m_level << ' ' << m_function << ": " << str();
    str("");
    return 0;
}

LogItem::LogItem(LogModule module, LogLevel level, const char* function, int)
    : std::ostream(nullptr), m_buffer(module, level, function) {
    rdbuf(&m_buffer);
}

std::vector<std::string> StringUtils::splitStr(const std::string& text, char separator) {
    std::vector<std::string> pieces(1);
    for (const char character : text) {
        if (character == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += character;
        }
    }
    return pieces;
}

bool StringUtils::contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
