#include "host/forwarding/Courier.h"

#include "common/infra/Log.h"
#include "host/forwarding/Identity.h"
#include "host/services/Clock.h"

#include <algorithm>

namespace {

constexpr u64 spoolRetryNs = nsPerSecond;
constexpr u64 tellPauseNs = nsPerSecond; // between records that tell of evictions
const std::string noReason = "no reason given";
const std::string spoolWasDamaged = "the spool was damaged";

u64 inNs(std::chrono::milliseconds time) {
    return static_cast<u64>(std::chrono::nanoseconds(time).count());
}

TrackedPtr<AnalyticsParcel> makeOwnParcel(const char* eventName) {
    TrackedPtr<AnalyticsParcel> parcel(TRACKED_NEW(AnalyticsParcel)(), TRACKED_DELETE);
    parcel->setEventName(eventName);
    parcel->setCategory("forwarding");
    return parcel;
}

TrackedPtr<AnalyticsParcel> parcelOf(const EvictedRange& range) {
    TrackedPtr<AnalyticsParcel> parcel = makeOwnParcel("RecordsEvictedParcel");
    parcel->addEntry("host", range.origin.host).addEntry("boot", range.origin.boot);
    parcel->addEntry("first", range.first).addEntry("last", range.last);
    parcel->addEntry("count", range.count);
    return parcel;
}

TrackedPtr<AnalyticsParcel> parcelOf(const AccountNumbers& numbers) {
    TrackedPtr<AnalyticsParcel> parcel = makeOwnParcel("ForwardingAccountParcel");
    parcel->addEntry("pushed", numbers.pushed).addEntry("restored", numbers.restored);
    parcel->addEntry("delivered", numbers.delivered).addEntry("failed", numbers.failed);
    parcel->addEntry("dropped", numbers.dropped).addEntry("evicted", numbers.evicted);
    parcel->addEntry("waiting", numbers.waiting).addEntry("discarded", numbers.discarded);
    parcel->addEntry("outputLost", numbers.outputLost);
    for (const auto& [reason, count] : numbers.failures) {
        parcel->addEntry("failed: " + reason, count);
    }
    return parcel;
}

} // namespace

// Takes the answers of the sinks beside the engine.
class Courier::Losses final : public IAnswers {
public:
    explicit Losses(Account& account) : m_account(account) {}

    void answer(std::vector<Answer> answers) override {
        const auto isLost = [](const Answer& each) { return each.fate != Fate::Delivered; };
        const auto first = std::find_if(answers.begin(), answers.end(), isLost);
        if (first != answers.end() && !m_isLosing) {
            LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
                << "the output loses records: " << first->reason << std::endl;
        }
        m_isLosing = first != answers.end();
        m_account.addOutputLost(static_cast<u64>(std::count_if(first, answers.end(), isLost)));
    }

private:
    Account& m_account;
    bool m_isLosing = false; // sinks beside answer within send(), on the forwarder's thread
};

Courier::Courier(Account& account, AnswerBox& answers, ISink& engine, std::vector<ISink*> beside,
                 const ForwarderOptions& options)
    : m_account(account),
      m_answers(answers),
      m_engine(engine),
      m_beside(std::move(beside)),
      m_losses(std::make_unique<Losses>(account)),
      m_onFailure(options.onFailure),
      m_answerTimeoutNs(inNs(options.answerTimeout)),
      m_origin(std::make_shared<Origin>(makeOrigin(options.hostId))),
      m_writer(*m_origin, options.service.empty() ? programName() : options.service),
      m_gate(inNs(options.firstBackOff), inNs(options.longestBackOff)) {
    if (options.spool) {
        m_spool = std::make_unique<Spool>(*options.spool);
        m_ticket = m_spool->lastTicket();
        m_hasUnread = m_spool->count() > 0;
        m_account.restore(m_spool->count());
    }
    m_engine.start(m_answers);
    for (ISink* sink : m_beside) {
        sink->start(*m_losses);
    }
}

Courier::~Courier() {
    for (; m_made < m_taken.size(); ++m_made) {
        TRACKED_DELETE(static_cast<AnalyticsParcel*>(m_taken[m_made]));
    }
}

u64 Courier::step(u64 nowNs, u64 epochMs) {
    const bool goesOn = std::exchange(m_isInStep, true); // another one threw
    const bool hadFresh = !m_fresh.empty();
    m_mustAskSpool = false;
    takeAnswers(nowNs);
    takeParcels(epochMs);
    accept(nowNs);
    if (mayTellEvictions() && nowNs >= m_tellNs) {
        tellEvictions(nowNs, epochMs);
        accept(nowNs);
    }
    refill(nowNs);
    watch(nowNs);
    send(nowNs);
    m_isInStep = false;
    // The step that threw may have used up the wake-up for answers and parcels that still wait. No
    // parcels are taken while fresh records wait for the spool.
    return goesOn || (hadFresh && m_fresh.empty()) ? nowNs : nextStepNs(nowNs);
}

bool Courier::isIdle() const {
    return m_account.waiting() == 0 && m_change.done.empty() && !m_mustTellAccount;
}

void Courier::hurry() {
    m_gate.hurry();
    m_spoolNs = 0;
}

void Courier::takeAnswers(u64 nowNs) {
    if (m_settled == m_answered.size()) {
        m_answered.clear();
        m_settled = 0;
        m_answers.take(m_answered);
    }
    m_change.done.reserve(m_change.done.size() + m_answered.size() - m_settled);
    for (; m_settled < m_answered.size(); ++m_settled) {
        const Answer& answer = m_answered[m_settled];
        answer.fate == Fate::TryAgain ? putBack(answer) : settle(answer);
    }
    m_account.apply(m_outcome.change);
    const Outcome outcome = std::exchange(m_outcome, {});
    if (outcome.hasDelivered) {
        noteDelivery(nowNs);
    }
    if (!outcome.failure.empty()) {
        noteFailure(outcome.failure);
    }
}

void Courier::noteDelivery(u64 nowNs) {
    m_isFailing = false;
    m_isTaking = !m_gate.isDraining();
    m_gate.delivered();
    if (!m_trouble.empty() && m_gate.isOpen(nowNs)) {
        m_trouble.clear();
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << m_engine.name() << " takes records again" << std::endl;
    }
}

// One line for a run of failures.
void Courier::noteFailure(const std::string& reason) {
    if (!m_isFailing) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "a report is lost: " << reason << std::endl;
    }
    m_isFailing = true;
    if (m_onFailure) {
        m_onFailure();
    }
}

// A throw leaves the answer to the next step.
void Courier::settle(const Answer& answer) {
    const std::optional<Window::InFlight> record = m_window.find(answer.ticket);
    if (!record) {
        return;
    }
    const AccountChange::Column place = placeOf(record->wasEvicted);
    if (answer.fate == Fate::Delivered) {
        m_outcome.change.move(place, AccountChange::Delivered);
        m_outcome.hasDelivered = true;
    } else {
        const std::string& reason = answer.reason.empty() ? noReason : answer.reason;
        m_outcome.failure = reason;
        m_outcome.change.fail(place, reason);
    }
    if (place == AccountChange::Spool) {
        m_change.done.push_back(answer.ticket); // there is room
    }
    m_window.settle(answer.ticket);
}

void Courier::putBack(const Answer& answer) {
    const std::optional<Window::InFlight> record = m_window.putBack(answer.ticket);
    if (!record) {
        return;
    }
    if (record->wasEvicted) {
        m_outcome.change.move(AccountChange::Hand, AccountChange::Evicted);
    }
    giveUp(answer.reason);
}

AccountChange::Column Courier::placeOf(bool wasEvicted) const {
    return m_spool != nullptr && !wasEvicted ? AccountChange::Spool : AccountChange::Hand;
}

// With a spool, takes every parcel: the spool limits itself.
bool Courier::mayTakeParcels() const {
    return m_fresh.empty() && (m_spool != nullptr || m_window.hasRoom());
}

void Courier::takeParcels(u64 epochMs) {
    if (m_made == m_taken.size() && mayTakeParcels()) {
        if (m_mustTellAccount) {
            makeOwnRecord(parcelOf(m_account.numbers()), epochMs);
            m_mustTellAccount = false;
        }
        m_taken = m_account.take();
        m_made = 0;
    }
    m_fresh.reserve(m_fresh.size() + m_taken.size() - m_made);
    for (; m_made < m_taken.size(); ++m_made) {
        auto* parcel = static_cast<AnalyticsParcel*>(m_taken[m_made]);
        Record record = recordOf(*parcel, epochMs);
        m_fresh.push_back({std::move(record), {parcel, TRACKED_DELETE}});
    }
}

void Courier::makeOwnRecord(TrackedPtr<AnalyticsParcel> parcel, u64 epochMs) {
    m_fresh.reserve(m_fresh.size() + 1);
    Record record = recordOf(*parcel, epochMs);
    m_fresh.push_back({std::move(record), std::move(parcel)});
    m_account.addOwn();
}

Record Courier::recordOf(const AnalyticsParcel& parcel, u64 epochMs) {
    Record record;
    record.ticket = m_ticket + 1;
    record.sequence = m_sequence + 1;
    record.origin = m_origin;
    record.line = m_writer.line(parcel, record.sequence, epochMs);
    record.parcel = &parcel;
    ++m_ticket;
    ++m_sequence;
    return record;
}

// Only while the engine takes records and the spool has room, so that it evicts no others.
bool Courier::mayTellEvictions() const {
    return m_spool != nullptr && m_isTaking && m_spool->hasUntold() && m_spool->hasRoom() &&
           m_change.told.empty();
}

void Courier::tellEvictions(u64 nowNs, u64 epochMs) {
    m_tellNs = nowNs + tellPauseNs;
    askSpool(nowNs, [&] {
        const std::vector<EvictedRange> ranges = m_spool->untold();
        m_change.told.reserve(ranges.size());
        for (const EvictedRange& range : ranges) {
            makeOwnRecord(parcelOf(range), epochMs);
            m_change.told.emplace_back(range.id, m_ticket);
        }
    });
}

// Commits the fresh records and passes them on.
void Courier::accept(u64 nowNs) {
    passOn(); // the records that a step that threw has left
    if (m_spool == nullptr) {
        m_accepted.records.swap(m_fresh);
    } else {
        commit(nowNs);
    }
    passOn();
}

// On failure, m_fresh keeps its records.
void Courier::commit(u64 nowNs) {
    if (!m_fresh.empty() || !m_change.done.empty()) {
        askSpool(nowNs, [this] { commitChange(); });
    }
}

// If the spool fails, a later step asks again.
void Courier::askSpool(u64 nowNs, const std::function<void()>& question) {
    m_mustAskSpool = true;
    if (nowNs < m_spoolNs) {
        return;
    }
    try {
        if (m_isSpoolDamaged) {
            restoreSpool();
        }
        question();
        m_mustAskSpool = false;
    } catch (const SpoolDamage& damage) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3) << damage.what() << std::endl;
        m_isSpoolDamaged = true;
        m_spoolNs = nowNs;
    } catch (const SpoolError& error) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << error.what() << "; tried again after a second" << std::endl;
        m_spoolNs = nowNs + spoolRetryNs;
    }
}

void Courier::commitChange() {
    std::sort(m_change.done.begin(), m_change.done.end());
    m_change.added.clear();
    for (const Fresh& fresh : m_fresh) {
        m_change.added.push_back(&fresh.record);
    }
    const std::vector<u64> evicted = m_spool->commit(m_change);
    AccountChange change;
    change.move(AccountChange::Hand, AccountChange::Spool, m_fresh.size());
    noteEvicted(evicted, change);
    m_account.apply(change);
    m_change = {};
    m_accepted.records.swap(m_fresh);
}

// Begins a new file with the records in memory. All others of the old file are lost.
void Courier::restoreSpool() {
    m_spool->startAnew();
    SpoolChange kept;
    kept.added = m_window.kept();
    AccountChange change;
    const u64 lost = m_account.numbers().inSpool - kept.added.size();
    if (lost > 0) {
        change.fail(AccountChange::Spool, spoolWasDamaged, lost);
    }
    noteEvicted(m_spool->commit(kept), change);
    m_account.apply(change);
    m_change.done.clear();
    m_change.told.clear();
    m_hasUnread = false;
    m_isSpoolDamaged = false;
}

void Courier::noteEvicted(const std::vector<u64>& tickets, AccountChange& change) {
    for (const u64 ticket : tickets) {
        const bool isInFlight = m_window.evict(ticket) == Window::Eviction::InFlight;
        change.move(AccountChange::Spool,
                    isInFlight ? AccountChange::Hand : AccountChange::Evicted);
        m_evictedUpTo = ticket;
    }
}

// To the sinks beside, and into the window.
void Courier::passOn() {
    std::vector<const Record*> batch;
    for (const Fresh& accepted : m_accepted.records) {
        batch.push_back(&accepted.record);
    }
    for (; !batch.empty() && m_accepted.sinks < m_beside.size(); ++m_accepted.sinks) {
        m_beside[m_accepted.sinks]->send(batch);
    }
    for (; m_accepted.loaded < m_accepted.records.size(); ++m_accepted.loaded) {
        load(m_accepted.records[m_accepted.loaded]);
    }
    m_accepted.records.clear();
    m_accepted.sinks = 0;
    m_accepted.loaded = 0;
}

// While the window has room; the spool has the rest.
void Courier::load(Fresh& accepted) {
    const u64 ticket = accepted.record.ticket;
    m_hasUnread = m_hasUnread || (m_spool != nullptr && !m_window.hasRoom());
    if (!m_hasUnread && ticket > m_evictedUpTo) {
        m_window.add(std::move(accepted.record), std::move(accepted.parcel));
        m_lastLoaded = ticket;
    }
}

// From the spool, when half of the window is empty.
void Courier::refill(u64 nowNs) {
    if (m_hasUnread && m_window.size() <= ISink::maxRecords / 2 && m_window.hasRoom()) {
        askSpool(nowNs, [this] { readOn(); });
    }
}

void Courier::readOn() {
    std::vector<Record> records =
        m_spool->read(m_lastLoaded, ISink::maxRecords - m_window.size(), ISink::maxBytes / 2);
    for (Record& record : records) {
        const u64 ticket = record.ticket;
        m_window.add(std::move(record), {nullptr, TRACKED_DELETE});
        m_lastLoaded = ticket;
    }
    m_hasUnread = !records.empty() && m_lastLoaded < m_spool->lastTicket();
}

void Courier::watch(u64 nowNs) {
    const u64 oldestNs = m_window.oldestSentNs();
    if (oldestNs != Wakeup::never && oldestNs + m_answerTimeoutNs <= nowNs) {
        giveUp("no answer");
    }
    if (m_mustPurge) {
        m_engine.purge();
        m_mustPurge = false;
    }
    if (m_gate.isDraining() && m_window.inFlight() == 0) {
        m_gate.drained(nowNs);
        m_window.rewind();
    }
}

// Gives up the records in flight. Once all are answered, sending goes on from the oldest record.
void Courier::giveUp(const std::string& reason) {
    if (m_gate.isDraining()) {
        return;
    }
    m_gate.shut();
    m_mustPurge = true;
    m_isTaking = false;
    if (m_trouble.empty()) {
        m_trouble = reason;
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << m_engine.name() << " takes no records: " << reason << std::endl;
    }
}

void Courier::send(u64 nowNs) {
    if (!m_gate.isOpen(nowNs) || !m_window.hasUnsent()) {
        return;
    }
    m_answers.makeRoomFor(m_window.size());
    const std::vector<const Record*> batch = m_window.send(nowNs);
    if (!batch.empty()) {
        sendToEngine(batch);
    }
}

// A throw means that the engine took none.
void Courier::sendToEngine(const std::vector<const Record*>& batch) {
    try {
        m_engine.send(batch);
    } catch (...) {
        for (const Record* record : batch) {
            m_window.putBack(record->ticket);
        }
        m_window.rewind();
        throw;
    }
}

u64 Courier::nextStepNs(u64 nowNs) const {
    u64 next = Wakeup::never;
    if (m_window.hasUnsent() && !m_gate.isOpen(nowNs)) {
        next = m_gate.opensNs();
    }
    const u64 oldestNs = m_window.oldestSentNs();
    if (oldestNs != Wakeup::never && !m_gate.isDraining()) {
        next = std::min(next, oldestNs + m_answerTimeoutNs);
    }
    if (m_mustAskSpool) {
        next = std::min(next, m_spoolNs);
    }
    if (mayTellEvictions()) {
        next = std::min(next, m_tellNs);
    }
    return next;
}
