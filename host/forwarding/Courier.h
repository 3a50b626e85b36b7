#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/Account.h"
#include "host/forwarding/AnswerBox.h"
#include "host/forwarding/RecordWriter.h"
#include "host/forwarding/SendGate.h"
#include "host/forwarding/Sink.h"
#include "host/forwarding/Spool.h"
#include "host/forwarding/Window.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Settings of the forwarder.
struct ANALYTICS_TAG ForwarderOptions {
    std::string hostId;                // empty: derived from the machine's id
    std::string service;               // empty: the program's name
    std::optional<SpoolOptions> spool; // none: records wait in memory
    std::chrono::milliseconds firstBackOff{100};
    std::chrono::milliseconds longestBackOff{10'000};
    std::chrono::milliseconds answerTimeout{30'000}; // then records in flight are given up
    // Called on the forwarder's thread each time records have failed for good.
    std::function<void()> onFailure;
};

// What the forwarder's thread does, one step at a time: takes parcels out of the outbox, makes
// records of them, commits these to the spool, sends them to the sinks beside the engine and to the
// engine, and settles the account by the engine's answers. It knows no clock and starts no thread.
//
//     outbox --> fresh records --> spool --> window --> engine
//                                    |          ^          |
//                                    +--> sinks beside     +--> answers --> account
//
// The window holds the oldest records that are not settled. Later ones are read from the spool once
// there is room; without a spool they stay in the outbox. One thread at a time.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): its fields stand by what they serve
class ANALYTICS_TAG Courier {
public:
    // All must outlive this. Throws std::runtime_error if the spool cannot be opened.
    Courier(Account& account, AnswerBox& answers, ISink& engine, std::vector<ISink*> beside,
            const ForwarderOptions& options);
    ~Courier();
    Courier(const Courier&) = delete;
    Courier& operator=(const Courier&) = delete;

    // Returns the moment of the next step, if nothing happens before. `nowNs` is of the monotonic
    // clock, `epochMs` of the wall clock. It throws only std::bad_alloc; the next step then goes on
    // where this one ended.
    u64 step(u64 nowNs, u64 epochMs);
    // Nothing waits, and the spool has noted all that was settled.
    bool isIdle() const;
    // The next step ends all back-offs, and skips the one that would follow the records in flight.
    void hurry();
    // The next step makes a record of the account, and forwards it.
    void addAccount() { m_mustTellAccount = true; }

private:
    struct Fresh {
        Record record;
        TrackedPtr<AnalyticsParcel> parcel;
    };
    // Records to pass on.
    struct Accepted {
        std::vector<Fresh> records;
        std::size_t sinks = 0;  // number of sinks beside that got the records
        std::size_t loaded = 0; // number of records that were offered to the window
    };
    // The sum of answers that are not noted yet.
    struct Outcome {
        AccountChange change;
        bool hasDelivered = false;
        std::string failure; // the last one's reason, or empty
    };
    class Losses;

    void takeAnswers(u64 nowNs);
    void settle(const Answer& answer);
    void putBack(const Answer& answer);
    void noteDelivery(u64 nowNs);
    void noteFailure(const std::string& reason);
    void takeParcels(u64 epochMs);
    bool mayTakeParcels() const;
    void makeOwnRecord(TrackedPtr<AnalyticsParcel> parcel, u64 epochMs);
    Record recordOf(const AnalyticsParcel& parcel, u64 epochMs);
    bool mayTellEvictions() const;
    void tellEvictions(u64 nowNs, u64 epochMs);
    void accept(u64 nowNs);
    void commit(u64 nowNs);
    void askSpool(u64 nowNs, const std::function<void()>& question);
    void commitChange();
    void restoreSpool();
    void noteEvicted(const std::vector<u64>& tickets, AccountChange& change);
    void passOn();
    void load(Fresh& accepted);
    void refill(u64 nowNs);
    void readOn();
    void watch(u64 nowNs);
    void giveUp(const std::string& reason);
    void send(u64 nowNs);
    void sendToEngine(const std::vector<const Record*>& batch);
    u64 nextStepNs(u64 nowNs) const;
    AccountChange::Column placeOf(bool wasEvicted) const;

    Account& m_account;
    AnswerBox& m_answers;
    ISink& m_engine;
    const std::vector<ISink*> m_beside;
    const std::unique_ptr<Losses> m_losses;
    const std::function<void()> m_onFailure;
    const u64 m_answerTimeoutNs;

    bool m_isInStep = false;

    // Makes records.
    const std::shared_ptr<const Origin> m_origin;
    RecordWriter m_writer;
    u64 m_sequence = 0;
    u64 m_ticket = 0;
    std::vector<IParcel*> m_taken; // out of the outbox
    std::size_t m_made = 0;        // number of these that are records
    bool m_mustTellAccount = false;

    // Accepts them.
    std::unique_ptr<Spool> m_spool;
    std::vector<Fresh> m_fresh; // not committed yet
    Accepted m_accepted;
    SpoolChange m_change;  // without the fresh records
    u64 m_evictedUpTo = 0; // ticket
    bool m_isSpoolDamaged = false;
    bool m_mustAskSpool = false; // the last attempt failed
    u64 m_spoolNs = 0;           // not before
    u64 m_tellNs = 0;            // not before

    // Sends them, and settles what is answered.
    Window m_window;
    u64 m_lastLoaded = 0;     // ticket of the newest record in the window
    bool m_hasUnread = false; // the spool holds later ones
    SendGate m_gate;
    bool m_mustPurge = false; // the engine
    std::vector<Answer> m_answered;
    std::size_t m_settled = 0; // number of these that are settled
    Outcome m_outcome;         // of the settled ones
    std::string m_trouble;     // of the engine; empty: none
    bool m_isTaking = false;   // the engine has delivered since its last trouble
    bool m_isFailing = false;  // the last answer but TryAgain
};
