#include "common/Analytics/AnalyticsParcel.h"

#include "common/infra/Singleton.h"
#include "common/infra/Timer.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <limits>

namespace {

// Makes the next change up to this length one that cannot fail. Most texts then take one block.
void makeRoom(std::string& text, std::size_t length) {
    constexpr std::size_t usualLength = 64;
    if (length > text.capacity()) {
        text.reserve(std::max(length, usualLength));
    }
}

} // namespace

AnalyticsParcel::AnalyticsParcel() {
    setKelTimeStamp(Singleton<ITimer, Timer>::instance()->getTimestampMs());
}

void AnalyticsParcel::setEventName(const std::string& eventName) {
    m_eventName = eventName;
}

void AnalyticsParcel::setCategory(const std::string& category) {
    m_category = category;
}

void AnalyticsParcel::setAccount(AccountType account) {
    m_account = account;
}

void AnalyticsParcel::setEventPriority(Priority eventPriority) {
    m_eventPriority = eventPriority;
}

void AnalyticsParcel::setValue(u32 value) {
    m_value = value;
}

void AnalyticsParcel::setText(const std::string& text) {
    m_txt = text;
}

void AnalyticsParcel::setDetails(const std::string& details) {
    m_details = details;
}

void AnalyticsParcel::setKelTimeStamp(u64 kelTime) {
    m_kelTime = kelTime;
}

void AnalyticsParcel::addText(const std::string& key, const std::string& value) {
    const std::size_t length = m_concatKeyValueText.size() + key.size() + value.size() + 3;
    makeRoom(m_concatKeyValueText, length);
    makeRoom(m_txt, length);

    m_concatKeyValueText.append("[").append(key).append("=").append(value).append("]");
    setText(m_concatKeyValueText);
}

AnalyticsParcel& AnalyticsParcel::addEntry(const std::string& key, const std::string& value) {
    m_strEntries.insert_or_assign(key, value);
    return *this;
}

AnalyticsParcel& AnalyticsParcel::addEntry(const std::string& key, u32 value) {
    m_u32Entries[key] = value;
    return *this;
}

AnalyticsParcel& AnalyticsParcel::addEntry(const std::string& key, u64 value) {
    m_u64Entries[key] = value;
    return *this;
}

AnalyticsParcel& AnalyticsParcel::addEntry(const std::string& key, s64 value) {
    m_longEntries[key] = value;
    return *this;
}

AnalyticsParcel& AnalyticsParcel::addEntry(const std::string& key, double value) {
    // Sign, the digits of the largest double, the point, six decimals and the terminator.
    constexpr int capacity = 1 + (std::numeric_limits<double>::max_exponent10 + 1) + 1 + 6 + 1;
    char text[capacity];
    const int length = std::snprintf(text, sizeof text, "%f", value);
    m_doubleEntries.insert_or_assign(key, std::string(text, static_cast<std::size_t>(length)));
    return *this;
}

AnalyticsParcel& AnalyticsParcel::addEntry(const std::string& key, int value) {
    m_intEntries[key] = value;
    return *this;
}
