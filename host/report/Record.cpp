#include "host/report/Record.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace report {

namespace {

u64 saturatingSum(u64 a, u64 b) {
    return a > std::numeric_limits<u64>::max() - b ? std::numeric_limits<u64>::max() : a + b;
}

double ratio(u64 part, u64 whole) {
    return whole == 0 ? 0.0 : static_cast<double>(part) / static_cast<double>(whole);
}

} // namespace

void Totals::add(const Totals& other) {
    reports += other.reports;
    for (std::size_t i = 0; i < classes.size(); ++i) {
        classes[i] = saturatingSum(classes[i], other.classes[i]);
    }
    failed = saturatingSum(failed, other.failed);
    episodes = saturatingSum(episodes, other.episodes);
    episodeSumMs = saturatingSum(episodeSumMs, other.episodeSumMs);
    longestEpisodeMs = std::max(longestEpisodeMs, other.longestEpisodeMs);
    for (std::size_t i = 0; i < percentilesUs.size(); ++i) {
        percentilesUs[i] = std::max(percentilesUs[i], other.percentilesUs[i]);
    }
}

u64 Totals::ios() const {
    return std::accumulate(classes.begin(), classes.end(), u64{0}, saturatingSum);
}

u64 Totals::slowIos() const {
    return std::accumulate(classes.begin() + 2, classes.end(), u64{0}, saturatingSum);
}

double Totals::slowShare() const {
    return ratio(slowIos(), ios());
}

double Totals::meanEpisodeMs() const {
    return ratio(episodeSumMs, episodes);
}

u64 Record::number(std::string_view key) const {
    const auto it = std::find_if(numbers.begin(), numbers.end(),
                                 [&](const auto& entry) { return entry.first == key; });
    return it == numbers.end() ? 0 : it->second;
}

} // namespace report
