#include "host/report/Fleet.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

namespace report {

namespace {

// Each divides the next: from a second to nine years, of which 1500 go beyond the year 9999.
constexpr std::array<s64, 15> ladderSeconds = {
    1, 5, 10, 30, 60, 300, 600, 1800, 3600, 21600, 86400, 604800, 2419200, 29030400, 290304000};
constexpr s64 mostSteps = 1500;

// Of sets and of maxima. Hosts choose these names; those beyond the limit are added up as one.
constexpr std::size_t mostNames = 64;
constexpr const char* furtherNames = "(others)";

template <typename Value>
Value& named(std::map<std::string, Value, std::less<>>& map, std::string_view name) {
    const std::string kept = keptName(name);
    const auto it = map.find(kept);
    if (it != map.end()) {
        return it->second;
    }
    return map[map.size() < mostNames ? kept : furtherNames];
}

u64 hashOf(std::string_view text) {
    u64 hash = 14695981039346656037U;
    for (const char character : text) {
        hash = (hash ^ static_cast<unsigned char>(character)) * 1099511628211U;
    }
    return hash;
}

} // namespace

std::string keptName(std::string_view name) {
    constexpr std::size_t longest = 128;
    constexpr std::size_t begin = 96;
    if (name.size() <= longest) {
        return std::string(name);
    }
    std::size_t end = begin;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xc0U) == 0x80U) {
        --end; // not within a character
    }
    return fmt::format("{}~{:016x}", name.substr(0, end), hashOf(name));
}

void Cell::add(const Cell& other) {
    totals.add(other.totals);
    if (other.firstMs < firstMs) {
        firstMs = other.firstMs;
        first = other.first;
    }
    if (other.lastMs >= lastMs) {
        lastMs = other.lastMs;
        last = other.last;
    }
}

void Cells::add(const Cell& cell) {
    const auto at =
        std::lower_bound(m_cells.begin(), m_cells.end(), cell.index,
                         [](const Cell& each, s64 index) { return each.index < index; });
    if (at != m_cells.end() && at->index == cell.index) {
        at->add(cell);
    } else {
        m_cells.insert(at, cell);
    }
}

void Cells::coarsen(s64 factor) {
    std::vector<Cell> before;
    before.swap(m_cells);
    for (Cell& cell : before) {
        cell.index /= factor;
        add(cell);
    }
}

void Account::add(const Account& other) {
    pushed += other.pushed;
    restored += other.restored;
    delivered += other.delivered;
    failed += other.failed;
    dropped += other.dropped;
    evicted += other.evicted;
    waiting += other.waiting;
}

std::vector<const Boot*> Host::bootsInOrder() const {
    std::vector<const Boot*> order;
    for (const auto& [bootName, boot] : boots) {
        if (boot->records > 0) {
            order.push_back(boot.get());
        }
    }
    std::stable_sort(order.begin(), order.end(), [](const Boot* a, const Boot* b) {
        return a->firstForwardedMs < b->firstForwardedMs;
    });
    return order;
}

Fleet::Fleet(Choice choice)
    : m_choice(std::move(choice)),
      m_stepMs(m_choice.stepMs.value_or(ladderSeconds[0] * static_cast<s64>(OneSecondInMs))) {}

void Fleet::add(const Record& record) {
    if (!isChosen(record.host)) {
        return;
    }
    ++m_recordsRead;
    Host& host = hostOf(record.host);
    Boot& boot = bootOf(host, record.boot);
    if (!boot.seen.add(record.sequence, record.timeStampMs)) {
        ++m_duplicates;
        return;
    }
    ++boot.records;
    boot.firstForwardedMs = std::min(boot.firstForwardedMs, record.forwardedAtMs);
    const s64 aheadMs = record.forwardedAtMs - record.timeStampMs;
    boot.leastAheadMs = std::min(boot.leastAheadMs, aheadMs);
    boot.mostAheadMs = std::max(boot.mostAheadMs, aheadMs);
    if (record.kind == Record::Evicted) {
        addEvicted(record);
    } else if (record.kind == Record::Account && record.sequence > boot.accountSequence) {
        boot.accountSequence = record.sequence;
        boot.account = {record.number("pushed"),    record.number("restored"),
                        record.number("delivered"), record.number("failed"),
                        record.number("dropped"),   record.number("evicted"),
                        record.number("waiting")};
    }
    if (record.timeStampMs >= m_choice.sinceMs.value_or(record.timeStampMs) &&
        record.timeStampMs < m_choice.untilMs.value_or(record.timeStampMs + 1)) {
        addChosen(record, host);
    }
}

std::optional<s64> Fleet::from() const {
    return m_fromMs > m_toMs ? std::nullopt : std::optional(m_fromMs);
}

std::optional<s64> Fleet::to() const {
    return m_fromMs > m_toMs ? std::nullopt : std::optional(m_toMs);
}

Cells Fleet::allCells() const {
    std::map<s64, Cell> sums;
    for (const auto& [name, host] : m_hosts) {
        for (const Cell& cell : host.cells.cells()) {
            const auto [at, isNew] = sums.try_emplace(cell.index, cell);
            if (!isNew) {
                at->second.add(cell);
            }
        }
    }
    Cells cells;
    for (const auto& [index, cell] : sums) {
        cells.add(cell);
    }
    return cells;
}

bool Fleet::isChosen(std::string_view host) const {
    return m_choice.hosts.empty() || m_choice.hosts.count(keptName(host)) > 0;
}

Host& Fleet::hostOf(std::string_view name) {
    const std::string kept = keptName(name);
    Host& host = m_hosts[kept];
    host.name = kept;
    return host;
}

Boot& Fleet::bootOf(Host& host, std::string_view name) {
    std::unique_ptr<Boot>& boot = host.boots[keptName(name)];
    if (boot == nullptr) {
        boot = std::make_unique<Boot>();
        boot->name = keptName(name);
    }
    return *boot;
}

void Fleet::addChosen(const Record& record, Host& host) {
    m_fromMs = std::min(m_fromMs, record.timeStampMs);
    m_toMs = std::max(m_toMs, record.timeStampMs);
    m_longestPeriodMs = std::max(m_longestPeriodMs, record.periodMs);
    fitStep();
    if (record.kind == Record::Storage && record.set.empty()) {
        addStorage(record, host);
    } else if (record.kind == Record::Storage) {
        named(m_sets, record.set).add(record.totals);
    } else if (record.kind == Record::Maxima) {
        addMaxima(record, host);
    } else {
        ++m_otherRecords;
    }
}

void Fleet::addStorage(const Record& record, Host& host) {
    host.cells.add({record.timeStampMs / m_stepMs, record.totals, record.timeStampMs,
                    record.timeStampMs, record.limits, record.limits});
}

void Fleet::addMaxima(const Record& record, const Host& host) {
    for (const auto& [key, value] : record.numbers) {
        Maximum& maximum = named(m_maxima, key);
        // Of equal values the first host's, whatever the order of the records.
        if (maximum.host.empty() || value > maximum.value ||
            (value == maximum.value && host.name < maximum.host)) {
            maximum = {value, host.name};
        }
    }
}

// The evicted records may be those of another process, of which nothing else was read.
void Fleet::addEvicted(const Record& record) {
    const u64 first = record.number("first");
    const u64 last = record.number("last");
    if (first == 0 || last < first || last == std::numeric_limits<u64>::max() ||
        !isChosen(record.evictedHost)) {
        return;
    }
    m_evicted += std::min(record.number("count"), last - first + 1);
    bootOf(hostOf(record.evictedHost), record.evictedBoot).evicted.add(first, last);
}

bool Fleet::isStepTooShort() const {
    const auto periodMs = static_cast<s64>(std::min<u64>(m_longestPeriodMs, tenMinutesMs));
    // A period is a little longer or shorter than the interval of the reports.
    return m_stepMs < periodMs - periodMs / 10 ||
           m_toMs / m_stepMs - m_fromMs / m_stepMs >= mostSteps;
}

void Fleet::fitStep() {
    while (!m_choice.stepMs && m_rung + 1 < ladderSeconds.size() && isStepTooShort()) {
        const s64 factor = ladderSeconds[m_rung + 1] / ladderSeconds[m_rung];
        ++m_rung;
        m_stepMs *= factor;
        for (auto& [name, host] : m_hosts) {
            host.cells.coarsen(factor);
        }
    }
}

} // namespace report
