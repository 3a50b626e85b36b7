#include "host/forwarding/Account.h"

#include "common/infra/IParcelOutbox.h"

#include <fmt/format.h>

namespace {

// Reasons are texts of engines. What comes after so many different ones is counted together.
constexpr std::size_t maxReasons = 32;

} // namespace

std::string AccountNumbers::text() const {
    return fmt::format(
        "pushed={} restored={} delivered={} failed={} dropped={} evicted={} waiting={}", pushed,
        restored, delivered, failed, dropped, evicted, waiting);
}

void AccountChange::move(Column from, Column to, u64 count) {
    m_columns[from] -= static_cast<s64>(count);
    m_columns[to] += static_cast<s64>(count);
}

void AccountChange::fail(Column from, const std::string& reason, u64 count) {
    m_failures[reason] += count;
    move(from, Failed, count);
}

Account::Account(ParcelOutbox& outbox)
    : m_outbox(outbox),
      m_goneBefore(outbox.counts().pushed - outbox.counts().held),
      m_droppedBefore(outbox.counts().dropped + outbox.counts().freed) {}

std::vector<IParcel*> Account::take() {
    const CheckedLock lock(m_mutex);
    std::vector<IParcel*> parcels = m_outbox.popParcels(IParcelOutbox::KEL_ANALYTICS);
    m_columns[AccountChange::Hand] += parcels.size();
    return parcels;
}

void Account::restore(u64 count) {
    const CheckedLock lock(m_mutex);
    m_beside.restored += count;
    m_columns[AccountChange::Spool] += count;
}

void Account::addOwn() {
    const CheckedLock lock(m_mutex);
    ++m_own;
    ++m_columns[AccountChange::Hand];
}

void Account::apply(const AccountChange& change) {
    const CheckedLock lock(m_mutex);
    if (!change.m_failures.empty()) {
        std::map<std::string, u64> failures = m_beside.failures;
        for (const auto& [reason, count] : change.m_failures) {
            const bool isOther = failures.count(reason) == 0 && failures.size() >= maxReasons;
            failures[isOther ? "other" : reason] += count;
        }
        m_beside.failures.swap(failures);
    }
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        m_columns[i] += static_cast<u64>(change.m_columns[i]);
    }
}

void Account::addDiscarded() {
    const CheckedLock lock(m_mutex);
    ++m_beside.discarded;
}

void Account::addOutputLost(u64 count) {
    const CheckedLock lock(m_mutex);
    m_beside.outputLost += count;
}

u64 Account::waiting() const {
    const CheckedLock lock(m_mutex);
    return m_outbox.counts().held + m_columns[AccountChange::Hand] +
           m_columns[AccountChange::Spool];
}

AccountNumbers Account::numbers() const {
    const CheckedLock lock(m_mutex);
    const ParcelOutbox::Counts outbox = m_outbox.counts();
    AccountNumbers numbers = m_beside;
    numbers.pushed = outbox.pushed - m_goneBefore + m_own;
    numbers.delivered = m_columns[AccountChange::Delivered];
    numbers.failed = m_columns[AccountChange::Failed];
    numbers.dropped = outbox.dropped + outbox.freed - m_droppedBefore;
    numbers.evicted = m_columns[AccountChange::Evicted];
    numbers.inSpool = m_columns[AccountChange::Spool];
    numbers.waiting = outbox.held + m_columns[AccountChange::Hand] + numbers.inSpool;
    return numbers;
}
