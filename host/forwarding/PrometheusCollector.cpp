#include "host/forwarding/PrometheusCollector.h"

#include "host/services/Clock.h"
#include "host/services/StorageEntries.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <numeric>
#include <string>
#include <utility>

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr std::array<const char*, 4> boundKeys = {"boundFastUs", "boundModerateUs", "boundSlowUs",
                                                  "boundVerySlowUs"};
constexpr std::array<std::pair<const char*, const char*>, 5> quantileKeys = {
    {{"p50Us", "0.5"}, {"p90Us", "0.9"}, {"p99Us", "0.99"}, {"p999Us", "0.999"}, {"maxUs", "1"}}};
constexpr auto usPerSecond = static_cast<double>(nsPerSecond / nsPerUs);

template <typename Map>
u64 entry(const Map& entries, const char* key) {
    const auto found = entries.find(key);
    return found == entries.end() ? 0 : found->second;
}

// Of the process's own counters, with the entries of StorageEntries.h.
bool isStorageReport(const AnalyticsParcel& parcel) {
    const auto& entries = parcel.getU32Entries();
    const auto isThere = [&](const char* key) { return entries.find(key) != entries.end(); };
    return std::all_of(latencyClassKeys.begin(), latencyClassKeys.end(), isThere) &&
           std::all_of(boundKeys.begin(), boundKeys.end(), isThere) &&
           parcel.getStringEntries().find("set") == parcel.getStringEntries().end();
}

void add(MetricFamily& family, double value, std::vector<ClientMetric::Label> labels = {}) {
    ClientMetric metric;
    metric.label = std::move(labels);
    metric.counter.value = value;
    metric.gauge.value = value;
    metric.untyped.value = value;
    family.metric.push_back(std::move(metric));
}

MetricFamily makeFamily(const char* name, const char* help, MetricType type) {
    return {name, help, type, {}};
}

MetricFamily makeCounter(const char* name, const char* help, double value) {
    MetricFamily family = makeFamily(name, help, MetricType::Counter);
    add(family, value);
    return family;
}

template <typename Values>
MetricFamily makeByClass(const char* name, const char* help, MetricType type,
                         const Values& values) {
    MetricFamily family = makeFamily(name, help, type);
    for (std::size_t i = 0; i < values.size(); ++i) {
        add(family, static_cast<double>(values[i]), {{"class", std::to_string(i + 1)}});
    }
    return family;
}

} // namespace

void PrometheusCollector::advance(const AnalyticsParcel& parcel) {
    if (isStorageReport(parcel)) {
        const CheckedLock lock(m_mutex);
        count(m_storage, parcel);
        measure(m_storage, parcel);
    }
}

void PrometheusCollector::followAccount(AccountSource account) {
    const CheckedLock lock(m_accountMutex);
    m_account = std::move(account);
}

std::vector<MetricFamily> PrometheusCollector::Collect() const {
    std::vector<MetricFamily> families;
    {
        const CheckedLock lock(m_mutex);
        families = familiesOf(m_storage);
    }
    const CheckedLock lock(m_accountMutex);
    if (m_account) {
        families.push_back(familyOf(m_account()));
    }
    return families;
}

void PrometheusCollector::count(Storage& storage, const AnalyticsParcel& report) {
    for (std::size_t i = 0; i < latencyClassKeys.size(); ++i) {
        storage.classes[i] += entry(report.getU32Entries(), latencyClassKeys[i]);
    }
    storage.failedIos += entry(report.getU64Entries(), "failedIos");
    storage.episodes += entry(report.getU32Entries(), "episodes");
    storage.episodeMs += entry(report.getU64Entries(), "episodeSumMs");
}

void PrometheusCollector::measure(Storage& storage, const AnalyticsParcel& report) {
    const auto& entries = report.getU32Entries();
    const bool isIdle = std::all_of(latencyClassKeys.begin(), latencyClassKeys.end(),
                                    [&](const char* key) { return entry(entries, key) == 0; });
    for (std::size_t i = 0; i < quantileKeys.size(); ++i) {
        const auto us = static_cast<double>(entry(entries, quantileKeys[i].first));
        storage.quantileSeconds[i] =
            isIdle ? std::numeric_limits<double>::quiet_NaN() : us / usPerSecond;
    }
    for (std::size_t i = 0; i < boundKeys.size(); ++i) {
        storage.boundSeconds[i] = static_cast<double>(entry(entries, boundKeys[i])) / usPerSecond;
    }
    storage.hasReport = true;
}

std::vector<MetricFamily> PrometheusCollector::familiesOf(const Storage& storage) {
    std::vector<MetricFamily> families = {
        makeByClass("analytics_storage_ios_total", "I/Os that succeeded, by latency class.",
                    MetricType::Counter, storage.classes),
        makeCounter("analytics_storage_failed_ios_total", "I/Os that failed.",
                    static_cast<double>(storage.failedIos)),
        makeCounter("analytics_storage_episodes_total", "High-latency episodes.",
                    static_cast<double>(storage.episodes)),
        makeCounter("analytics_storage_episode_seconds_total",
                    "Durations of the high-latency episodes.",
                    static_cast<double>(storage.episodeMs) / OneSecondInMs)};
    if (storage.hasReport) {
        // No summary: the sum that goes with one is not known.
        MetricFamily latency =
            makeFamily("analytics_storage_latency_seconds",
                       "Quantiles of the I/O latencies in the last period.", MetricType::Untyped);
        for (std::size_t i = 0; i < quantileKeys.size(); ++i) {
            add(latency, storage.quantileSeconds[i], {{"quantile", quantileKeys[i].second}});
        }
        families.push_back(std::move(latency));
        families.push_back(makeByClass("analytics_storage_class_bound_seconds",
                                       "Upper bounds of the latency classes in the last period.",
                                       MetricType::Gauge, storage.boundSeconds));
    }
    return families;
}

MetricFamily PrometheusCollector::familyOf(const AccountNumbers& account) {
    MetricFamily family = makeFamily("analytics_parcels_total", "Parcels, by what became of them.",
                                     MetricType::Counter);
    for (const auto& [fate, count] : {std::pair("pushed", account.pushed),
                                      {"restored", account.restored},
                                      {"delivered", account.delivered},
                                      {"failed", account.failed},
                                      {"dropped", account.dropped},
                                      {"evicted", account.evicted},
                                      {"discarded", account.discarded},
                                      {"output_lost", account.outputLost}}) {
        add(family, static_cast<double>(count), {{"fate", fate}});
    }
    return family;
}
