#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/Forwarder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

// A storage report with a figure of its own in every entry.
inline AnalyticsParcel storageReport() {
    AnalyticsParcel parcel;
    parcel.setEventName("StoragePeriodicParcel");
    parcel.setCategory("storage");
    parcel.setKelTimeStamp(1'700'000'000'123);
    parcel.setText("[Latency Threshold=50000][lt=60000]");
    parcel.setValue(7);
    parcel.addEntry("cm1", u32{120}).addEntry("cm2", u32{30}).addEntry("cm3", u32{4});
    parcel.addEntry("cm4", u32{1}).addEntry("cm5", u32{0}).addEntry("cm6", u32{12});
    parcel.addEntry("boundFastUs", u32{900}).addEntry("boundModerateUs", u32{5'000});
    parcel.addEntry("boundSlowUs", u32{20'500}).addEntry("boundVerySlowUs", u32{1'000'000});
    parcel.addEntry("p50Us", u32{71}).addEntry("p90Us", u32{999}).addEntry("p99Us", u32{1'234'567});
    parcel.addEntry("p999Us", u32{34'567}).addEntry("maxUs", ~u32{0}).addEntry("episodes", u32{5});
    parcel.addEntry("cd11", u64{1}).addEntry("failedIos", u64{6}).addEntry("periodMs", u64{1'980});
    return parcel.addEntry("episodeSumMs", u64{35});
}

inline Record makeRecord(u64 ticket, const std::string& boot = "boot", std::string line = "{}\n") {
    Record record;
    record.ticket = ticket;
    record.sequence = ticket + 1'000;
    record.origin = std::make_shared<Origin>(Origin{"host", boot});
    record.line = std::move(line);
    return record;
}

// What tests of engines share: an outbox with a forwarder to a sink, and a look at what was stored.

// How many records the long runs send; a few thousand unless the environment says otherwise.
inline u64 recordsOfARun() {
    const char* text = std::getenv("ANALYTICS_TEST_RECORDS");
    return text == nullptr ? 3'000 : std::stoull(text);
}

// Sends parcels to an engine, and holds the account against what came of them.
class Sending {
public:
    explicit Sending(std::unique_ptr<ISink> sink, const ForwarderOptions& options = fast())
        : m_forwarder(std::make_unique<Forwarder>(m_outbox, std::move(sink), std::vector<ISink*>{},
                                                  options)) {}

    // Short pauses, and a host's name to look for.
    static ForwarderOptions fast() {
        ForwarderOptions options;
        options.hostId = "host-1";
        options.firstBackOff = std::chrono::milliseconds(10);
        options.longestBackOff = std::chrono::milliseconds(100);
        options.answerTimeout = std::chrono::milliseconds(2'000);
        return options;
    }

    void push(u64 count, std::size_t size = 0) {
        for (u64 i = 0; i < count; ++i) {
            auto* parcel = TRACKED_NEW(AnalyticsParcel)();
            parcel->setEventName("Pushed");
            parcel->setDetails(std::string(size, 'x'));
            m_outbox.pushParcel(parcel, IParcelOutbox::KEL_ANALYTICS);
        }
        m_pushed += count;
    }

    AccountNumbers account() { return m_forwarder->account().numbers(); }
    u64 delivered() { return account().delivered; }

    // Ends the forwarder. The account has one record more than was pushed: its own.
    AccountNumbers end(std::chrono::seconds limit = std::chrono::seconds(20)) {
        EXPECT_TRUE(m_forwarder->stop(limit));
        AccountNumbers account = this->account();
        EXPECT_TRUE(account.addsUp()) << account.text();
        EXPECT_EQ(account.pushed, m_pushed + 1);
        EXPECT_EQ(account.dropped, 0U);
        m_forwarder.reset();
        return account;
    }
    // The same, when the engine has to have everything.
    void endWithAllDelivered() {
        const AccountNumbers account = end();
        EXPECT_EQ(account.delivered, m_pushed + 1) << account.text();
    }
    u64 pushed() const { return m_pushed; }

private:
    ParcelOutbox m_outbox{1'000'000};
    u64 m_pushed = 0;
    std::unique_ptr<Forwarder> m_forwarder;
};

// The sequences of stored records, in the order in which they were stored.
inline std::vector<u64> sequencesOf(const std::vector<std::string>& values) {
    std::vector<u64> sequences;
    for (const std::string& value : values) {
        const auto json = nlohmann::json::parse(value, nullptr, false);
        EXPECT_FALSE(json.is_discarded()) << value;
        sequences.push_back(json.value("sequence", u64{0}));
    }
    return sequences;
}

// Every record of 1 to `count` is there, and repeats aside they are in order.
inline void expectAllInOrder(const std::vector<std::string>& values, u64 count) {
    u64 last = 0;
    for (const u64 sequence : sequencesOf(values)) {
        if (sequence > last) {
            ASSERT_EQ(sequence, last + 1) << "a record is missing or was overtaken";
            last = sequence;
        }
    }
    EXPECT_EQ(last, count);
}
