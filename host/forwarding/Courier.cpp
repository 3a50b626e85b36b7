#include "host/forwarding/Courier.h"

#include "common/infra/Log.h"
#include "host/forwarding/Identity.h"
#include "host/services/Clock.h"

#include <algorithm>

namespace {

constexpr u64 spoolRetryNs = nsPerSecond;
constexpr u64 tellPauseNs = nsPerSecond; // between records that tell of evictions
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

Courier::~Courier() = default;

u64 Courier::step(u64 nowNs, u64 epochMs) {
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
    return nextStepNs(nowNs);
}

bool Courier::isIdle() const {
    return m_account.numbers().waiting == 0 && m_change.done.empty();
}

void Courier::hurry() {
    m_gate.hurry();
    m_spoolNs = 0;
}

void Courier::addAccount() {
    m_own.push_back(parcelOf(m_account.numbers()));
    m_account.addOwn();
}

void Courier::takeAnswers(u64 nowNs) {
    AccountChange change;
    bool hasDelivered = false;
    bool hasFailed = false;
    std::string failure;
    for (const Answer& answer : m_answers.take()) {
        if (answer.fate == Fate::TryAgain) {
            putBack(answer, change);
        } else if (settle(answer, change)) {
            hasDelivered = hasDelivered || answer.fate == Fate::Delivered;
            hasFailed = hasFailed || answer.fate == Fate::Failed;
            failure = answer.fate == Fate::Failed ? answer.reason : failure;
        }
    }
    m_account.apply(change);
    if (hasDelivered) {
        noteDelivery(nowNs);
    }
    if (hasFailed) {
        noteFailure(failure);
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

// False: the answer is of no record in flight.
bool Courier::settle(const Answer& answer, AccountChange& change) {
    const std::optional<Window::Answered> answered = m_window.settle(answer.ticket);
    if (!answered) {
        return false;
    }
    const AccountChange::Column place = placeOf(answered->wasEvicted);
    if (answer.fate == Fate::Delivered) {
        change.move(place, AccountChange::Delivered);
    } else {
        change.fail(place, answer.reason.empty() ? "no reason given" : answer.reason);
    }
    if (place == AccountChange::Spool) {
        m_change.done.push_back(answer.ticket);
    }
    return true;
}

void Courier::putBack(const Answer& answer, AccountChange& change) {
    const std::optional<Window::Answered> answered = m_window.putBack(answer.ticket);
    if (!answered) {
        return;
    }
    if (answered->wasEvicted) {
        change.move(AccountChange::Hand, AccountChange::Evicted);
    }
    giveUp(answer.reason);
}

AccountChange::Column Courier::placeOf(bool wasEvicted) const {
    return m_spool != nullptr && !wasEvicted ? AccountChange::Spool : AccountChange::Hand;
}

// With a spool, whatever comes is taken: the spool has a bound of its own.
void Courier::takeParcels(u64 epochMs) {
    if (!m_fresh.empty() || (m_spool == nullptr && !m_window.hasRoom())) {
        return;
    }
    std::vector<TrackedPtr<AnalyticsParcel>> parcels = std::move(m_own);
    m_own.clear();
    for (IParcel* parcel : m_account.take()) {
        parcels.emplace_back(static_cast<AnalyticsParcel*>(parcel), TRACKED_DELETE);
    }
    for (TrackedPtr<AnalyticsParcel>& parcel : parcels) {
        makeRecord(std::move(parcel), epochMs);
    }
}

void Courier::makeRecord(TrackedPtr<AnalyticsParcel> parcel, u64 epochMs) {
    Record record;
    record.ticket = ++m_ticket;
    record.sequence = ++m_sequence;
    record.origin = m_origin;
    record.line = m_writer.line(*parcel, record.sequence, epochMs);
    record.parcel = parcel.get();
    m_fresh.push_back({std::move(record), std::move(parcel)});
}

// While the engine takes records, and without evicting others by it.
bool Courier::mayTellEvictions() const {
    return m_spool != nullptr && m_isTaking && m_spool->hasUntold() && m_spool->hasRoom() &&
           m_change.told.empty();
}

void Courier::tellEvictions(u64 nowNs, u64 epochMs) {
    m_tellNs = nowNs + tellPauseNs;
    askSpool(nowNs, [&] {
        for (const EvictedRange& range : m_spool->untold()) {
            m_account.addOwn();
            makeRecord(parcelOf(range), epochMs);
            m_change.told.emplace_back(range.id, m_ticket);
        }
    });
}

// From here on the records are the forwarder's to deliver.
void Courier::accept(u64 nowNs) {
    if (m_spool == nullptr || commit(nowNs)) {
        passOn();
    }
}

// False: what is fresh stays so.
bool Courier::commit(u64 nowNs) {
    if (m_fresh.empty() && m_change.done.empty()) {
        return true;
    }
    return askSpool(nowNs, [this] { commitChange(); });
}

// False: it was not to be had, and will be asked again.
bool Courier::askSpool(u64 nowNs, const std::function<void()>& question) {
    m_mustAskSpool = true;
    if (nowNs < m_spoolNs) {
        return false;
    }
    try {
        if (m_isSpoolDamaged) {
            restoreSpool();
        }
        question();
        m_mustAskSpool = false;
        return true;
    } catch (const SpoolDamage& damage) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3) << damage.what() << std::endl;
        m_isSpoolDamaged = true;
        m_spoolNs = nowNs;
    } catch (const SpoolError& error) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << error.what() << "; tried again after a second" << std::endl;
        m_spoolNs = nowNs + spoolRetryNs;
    }
    return false;
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
}

// Begins a new file with what is in memory. All else that was in the old one is lost.
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

// To the sinks beside, and into the window as far as it has room.
void Courier::passOn() {
    std::vector<const Record*> batch;
    for (const Fresh& fresh : m_fresh) {
        batch.push_back(&fresh.record);
    }
    if (!batch.empty()) {
        for (ISink* sink : m_beside) {
            sink->send(batch);
        }
    }
    for (Fresh& fresh : m_fresh) {
        m_hasUnread = m_hasUnread || (m_spool != nullptr && !m_window.hasRoom());
        if (!m_hasUnread && fresh.record.ticket > m_evictedUpTo) {
            m_lastLoaded = fresh.record.ticket;
            m_window.add(std::move(fresh.record), std::move(fresh.parcel));
        }
    }
    m_fresh.clear();
}

// From the spool, when half of the window is empty.
void Courier::refill(u64 nowNs) {
    if (m_hasUnread && m_window.size() <= ISink::maxRecords / 2 && m_window.hasRoom()) {
        askSpool(nowNs, [this] { readOn(); });
    }
}

void Courier::readOn() {
    const std::vector<Record> records =
        m_spool->read(m_lastLoaded, ISink::maxRecords - m_window.size(), ISink::maxBytes / 2);
    for (const Record& record : records) {
        m_lastLoaded = record.ticket;
        m_window.add(record, {nullptr, TRACKED_DELETE});
    }
    m_hasUnread = !records.empty() && m_lastLoaded < m_spool->lastTicket();
}

void Courier::watch(u64 nowNs) {
    if (m_gate.isDraining() && m_window.inFlight() == 0) {
        m_gate.drained(nowNs);
        m_window.rewind();
    }
    const u64 oldestNs = m_window.oldestSentNs();
    if (oldestNs != Wakeup::never && oldestNs + m_answerTimeoutNs <= nowNs) {
        giveUp("no answer");
    }
}

// What is in flight; once it is answered, sending goes on from the oldest record.
void Courier::giveUp(const std::string& reason) {
    if (m_gate.isDraining()) {
        return;
    }
    m_gate.shut();
    m_isTaking = false;
    if (m_trouble.empty()) {
        m_trouble = reason;
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << m_engine.name() << " takes no records: " << reason << std::endl;
    }
    m_engine.purge();
}

void Courier::send(u64 nowNs) {
    if (m_gate.isOpen(nowNs) && m_window.hasUnsent()) {
        const std::vector<const Record*> batch = m_window.send(nowNs);
        if (!batch.empty()) {
            m_engine.send(batch);
        }
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
