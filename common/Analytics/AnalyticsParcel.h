#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/IParcel.h"

#include <map>
#include <string>

// The record of one analytics event: header fields, a text, and typed entries by key.
//
//     auto* parcel = TRACKED_NEW(AnalyticsParcel)();
//     parcel->setEventName("CacheWarmed");
//     parcel->setValue(seconds);
//     parcel->addEntry("hits", hits).addEntry("ratio", 0.97);
//     AnalyticsParcelSender::sendAnalyticsParcel(parcel);
//
// A plain value: nothing is checked, limited or logged. Not synchronised: one thread at a time, and
// after a successful send only the outbox's consumer. A parcel that is sent must come from tracked
// allocation, because the consumer releases it by tracked deletion.
class ANALYTICS_VISIBLE AnalyticsParcel : public IParcel {
public:
    enum AccountType { QEM = 0, KEL = 1 };
    enum Priority { Normal = 0, High = 1, Critical = 2 };
    static_assert(sizeof(AccountType) == 4 && sizeof(Priority) == 4);

    // Account KEL, priority Normal, value 0, all else empty; the time stamp is the timer's
    // getTimestampMs().
    AnalyticsParcel();

    void setEventName(const std::string& eventName);
    void setCategory(const std::string& category);
    void setAccount(AccountType account);
    void setEventPriority(Priority eventPriority);
    void setValue(u32 value);
    void setText(const std::string& text);
    void setDetails(const std::string& details);
    void setKelTimeStamp(u64 kelTime); // milliseconds of the process timer

    // Appends "[key=value]", unescaped, to the pairs given so far and makes all of them the text,
    // in place of what setText() stored.
    void addText(const std::string& key, const std::string& value);

    // Each sets one entry of the map for its type; the last value given for a key holds. A double
    // is kept as its text in the printf conversion "%f".
    AnalyticsParcel& addEntry(const std::string& key, const std::string& value);
    AnalyticsParcel& addEntry(const std::string& key, u32 value);
    AnalyticsParcel& addEntry(const std::string& key, u64 value);
    AnalyticsParcel& addEntry(const std::string& key, s64 value);
    AnalyticsParcel& addEntry(const std::string& key, double value);
    AnalyticsParcel& addEntry(const std::string& key, int value);

    const std::string& getEventName() const { return m_eventName; }
    const std::string& getCategory() const { return m_category; }
    AccountType getAccount() const { return m_account; }
    Priority getEventPriority() const { return m_eventPriority; }
    u32 getValue() const { return m_value; }
    const std::string& getText() const { return m_txt; }
    const std::string& getDetails() const { return m_details; }
    u64 getKelTimeStamp() const { return m_kelTime; }

    // The entries in byte-wise ascending order of their keys.
    const std::map<std::string, std::string>& getStringEntries() const { return m_strEntries; }
    const std::map<std::string, u32>& getU32Entries() const { return m_u32Entries; }
    const std::map<std::string, u64>& getU64Entries() const { return m_u64Entries; }
    const std::map<std::string, s64>& getLongEntries() const { return m_longEntries; }
    const std::map<std::string, std::string>& getDoubleEntries() const { return m_doubleEntries; }
    const std::map<std::string, int>& getIntEntries() const { return m_intEntries; }

private:
    std::string m_eventName;
    std::string m_category;
    AccountType m_account = KEL;
    Priority m_eventPriority = Normal;
    std::string m_concatKeyValueText; // every pair ever given to addText()
    u32 m_value = 0;
    std::string m_txt;
    std::string m_details;
    u64 m_kelTime;
    std::map<std::string, std::string> m_strEntries;
    std::map<std::string, u32> m_u32Entries;
    std::map<std::string, u64> m_u64Entries;
    std::map<std::string, s64> m_longEntries;
    std::map<std::string, std::string> m_doubleEntries;
    std::map<std::string, int> m_intEntries;
};
