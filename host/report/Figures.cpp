#include "host/report/Figures.h"

#include <algorithm>
#include <tuple>

namespace report {

namespace {

constexpr s64 mostPeriods = 12;
// A record may wait in the outbox: a smaller difference of the two clocks is no step.
constexpr s64 leastClockStepMs = 2'000;

// Whether `a` is worse than `b`.
bool isWorse(const Totals& a, const Totals& b) {
    const auto badness = [](const Totals& each) {
        return std::make_tuple(each.slowShare(), each.slowIos(), each.ios());
    };
    return badness(a) > badness(b);
}

std::vector<Slice> periodsOf(const std::vector<Cell>& cells, s64 stepMs) {
    std::vector<Slice> periods;
    if (cells.empty()) {
        return periods;
    }
    const s64 first = cells.front().index;
    const s64 length = ceilDiv(cells.back().index - first + 1, mostPeriods);
    for (const Cell& cell : cells) {
        const s64 fromMs = (first + (cell.index - first) / length * length) * stepMs;
        if (periods.empty() || periods.back().fromMs != fromMs) {
            periods.push_back({fromMs, fromMs + length * stepMs, {}});
        }
        periods.back().totals.add(cell.totals);
    }
    return periods;
}

// Of the windows that begin with a step and lie within the time span, the one with the greatest
// share of slow I/Os; none if no I/O was slow.
std::optional<Slice> worstOf(const std::vector<Cell>& cells, s64 stepMs) {
    const s64 length = std::max<s64>(1, tenMinutesMs / stepMs);
    std::optional<Slice> worst;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const s64 begin = std::max(cells.front().index,
                                   std::min(cells[i].index, cells.back().index - length + 1));
        Slice slice{begin * stepMs, (begin + length) * stepMs, {}};
        const auto from =
            std::lower_bound(cells.begin(), cells.end(), begin,
                             [](const Cell& cell, s64 index) { return cell.index < index; });
        for (auto it = from; it != cells.end() && it->index < begin + length; ++it) {
            slice.totals.add(it->totals);
        }
        if (slice.totals.slowIos() > 0 && (!worst || isWorse(slice.totals, worst->totals))) {
            worst = slice;
        }
    }
    return worst;
}

void addChanges(const Host& host, std::vector<LimitsChange>& changes) {
    const Limits* before = nullptr;
    for (const Cell& cell : host.cells.cells()) {
        if (before != nullptr && *before != cell.first) {
            changes.push_back({host.name, cell.firstMs, *before, cell.first});
        }
        if (cell.first != cell.last) {
            changes.push_back({host.name, cell.lastMs, cell.first, cell.last});
        }
        before = &cell.last;
    }
}

void addBoot(const Host& host, const Boot& boot, Figures& figures) {
    ++figures.boots;
    for (const Gap& gap : boot.seen.gaps(boot.evicted)) {
        figures.missing += gap.count;
        figures.gaps.push_back({host.name, boot.name, gap});
    }
    if (boot.mostAheadMs - boot.leastAheadMs >= leastClockStepMs) {
        figures.clockSteps.push_back({host.name, boot.name, boot.mostAheadMs - boot.leastAheadMs});
    }
    if (boot.account) {
        ++figures.accounts;
        figures.account.add(*boot.account);
    }
}

void addHost(const Host& host, Figures& figures) {
    const std::vector<const Boot*> boots = host.bootsInOrder();
    if (boots.empty()) {
        return; // only an eviction names this host
    }
    for (const Boot* boot : boots) {
        addBoot(host, *boot, figures);
    }
    HostLine line{host.name, boots.size(), {}};
    for (const Cell& cell : host.cells.cells()) {
        line.totals.add(cell.totals);
    }
    figures.totals.add(line.totals);
    figures.hosts.push_back(std::move(line));
    addChanges(host, figures.limitsChanges);
}

void addCounts(const Collector& collector, Figures& figures) {
    const Fleet& fleet = collector.fleet();
    figures.recordsRead = fleet.recordsRead();
    figures.duplicates = fleet.duplicates();
    figures.evicted = fleet.evicted();
    figures.otherRecords = fleet.otherRecords();
    figures.notUnderstood = collector.notUnderstood();
    figures.firstNotUnderstood = collector.firstNotUnderstood();
    figures.fromMs = fleet.from();
    figures.toMs = fleet.to();
    figures.stepMs = fleet.stepMs();
    figures.sets = fleet.sets();
    figures.maxima = fleet.maxima();
}

} // namespace

Figures figuresOf(const Collector& collector) {
    Figures figures;
    addCounts(collector, figures);
    for (const auto& [name, host] : collector.fleet().hosts()) {
        addHost(host, figures);
    }
    std::stable_sort(
        figures.hosts.begin(), figures.hosts.end(),
        [](const HostLine& a, const HostLine& b) { return isWorse(a.totals, b.totals); });
    std::stable_sort(figures.limitsChanges.begin(), figures.limitsChanges.end(),
                     [](const LimitsChange& a, const LimitsChange& b) { return a.atMs < b.atMs; });
    const Cells all = collector.fleet().allCells();
    figures.periods = periodsOf(all.cells(), figures.stepMs);
    figures.worst = worstOf(all.cells(), figures.stepMs);
    return figures;
}

} // namespace report
