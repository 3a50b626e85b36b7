#include "host/forwarding/Window.h"

#include "host/forwarding/Sink.h"
#include "host/forwarding/Wakeup.h"

#include <algorithm>
#include <utility>

bool Window::hasRoom() const {
    return m_entries.size() < ISink::maxRecords && m_bytes < ISink::maxBytes;
}

u64 Window::oldestSentNs() const {
    if (m_inFlight == 0) {
        return Wakeup::never;
    }
    const auto oldest = std::find_if(m_entries.begin(), m_entries.end(), [](const Entry& entry) {
        return entry.state == State::InFlight;
    });
    return oldest->sentNs;
}

void Window::add(Record&& record, TrackedPtr<AnalyticsParcel>&& parcel) {
    Entry& entry = m_entries.emplace_back();
    entry.record = std::move(record);
    entry.parcel = std::move(parcel);
    m_bytes += entry.record.line.size();
}

std::vector<const Record*> Window::send(u64 nowNs) {
    std::vector<const Record*> batch;
    batch.reserve(m_entries.size() - m_next);
    for (; m_next < m_entries.size(); ++m_next) {
        Entry& entry = m_entries[m_next];
        if (m_inFlight >= ISink::maxRecords || m_inFlightBytes >= ISink::maxBytes) {
            break;
        }
        if (entry.state == State::Waiting) {
            entry.state = State::InFlight;
            entry.sentNs = nowNs;
            ++m_inFlight;
            m_inFlightBytes += entry.record.line.size();
            batch.push_back(&entry.record);
        }
    }
    return batch;
}

std::optional<Window::InFlight> Window::find(u64 ticket) {
    const Entry* entry = findInFlight(ticket);
    return entry != nullptr ? std::optional<InFlight>({entry->isEvicted}) : std::nullopt;
}

void Window::settle(u64 ticket) {
    if (Entry* entry = findInFlight(ticket)) {
        finish(*entry);
    }
}

std::optional<Window::InFlight> Window::putBack(u64 ticket) {
    Entry* entry = findInFlight(ticket);
    if (entry == nullptr) {
        return std::nullopt;
    }
    const InFlight record{entry->isEvicted};
    if (entry->isEvicted) {
        finish(*entry);
    } else {
        entry->state = State::Waiting;
        --m_inFlight;
        m_inFlightBytes -= entry->record.line.size();
    }
    return record;
}

Window::Eviction Window::evict(u64 ticket) {
    Entry* entry = entryOf(ticket);
    if (entry == nullptr) {
        return Eviction::NotHere;
    }
    if (entry->state == State::InFlight) {
        entry->isEvicted = true;
        return Eviction::InFlight;
    }
    finish(*entry);
    return Eviction::Waiting;
}

std::vector<const Record*> Window::kept() const {
    std::vector<const Record*> records;
    for (const Entry& entry : m_entries) {
        if (entry.state != State::Done && !entry.isEvicted) {
            records.push_back(&entry.record);
        }
    }
    return records;
}

// Most tickets follow each other, so the entry is as far from the first as its ticket.
Window::Entry* Window::entryOf(u64 ticket) {
    if (m_entries.empty() || ticket < m_entries.front().record.ticket) {
        return nullptr;
    }
    const u64 distance = ticket - m_entries.front().record.ticket;
    auto found = m_entries.end();
    if (distance < m_entries.size() && m_entries[distance].record.ticket == ticket) {
        found = m_entries.begin() + static_cast<s64>(distance);
    } else {
        found = std::lower_bound(
            m_entries.begin(), m_entries.end(), ticket,
            [](const Entry& entry, u64 value) { return entry.record.ticket < value; });
    }
    const bool isHere =
        found != m_entries.end() && found->record.ticket == ticket && found->state != State::Done;
    return isHere ? &*found : nullptr;
}

Window::Entry* Window::findInFlight(u64 ticket) {
    Entry* entry = entryOf(ticket);
    return entry != nullptr && entry->state == State::InFlight ? entry : nullptr;
}

// Entries stay until all before them are done: the others' records must not move.
void Window::finish(Entry& entry) {
    const std::size_t size = entry.record.line.size();
    if (entry.state == State::InFlight) {
        --m_inFlight;
        m_inFlightBytes -= size;
    }
    m_bytes -= size;
    entry.state = State::Done;
    while (!m_entries.empty() && m_entries.front().state == State::Done) {
        m_entries.pop_front();
        m_next -= m_next > 0 ? 1 : 0;
    }
}
