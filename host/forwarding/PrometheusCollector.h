#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"
#include "common/infra/Lock.h"
#include "host/forwarding/Account.h"

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <array>
#include <functional>
#include <vector>

// The process's storage reports and the account of its parcels, for Prometheus to scrape:
//
//     analytics_storage_ios_total{class="1"}, ... "5"        | I/Os in the latency class
//     analytics_storage_failed_ios_total                     | I/Os that failed; in no class
//     analytics_storage_episodes_total                       | high-latency episodes
//     analytics_storage_episode_seconds_total                | sum of their durations
//     analytics_storage_latency_seconds{quantile="0.5"}, ... | 0.9, 0.99, 0.999 and 1, the longest,
//                                                            | of the last period
//     analytics_storage_class_bound_seconds{class="1"}, ...  | upper bounds of the classes 1 to 4
//                                                            | in the last period
//     analytics_parcels_total{fate}                          | the columns of the account that only
//                                                            | grow, "discarded" and "output_lost"
//
// The storage figures stand still between two reports: they advance when advance() is given one.
// The account is read at each scrape. Without a report there are no quantiles and no bounds, and
// after a period without I/Os the quantiles are NaN.
//
//     auto collector = std::make_shared<PrometheusCollector>();
//     exposer.RegisterCollectable(collector); // beside the service's own registry
//     collector->advance(report);
//
// Any thread.
class ANALYTICS_TAG PrometheusCollector final : public prometheus::Collectable {
public:
    using AccountSource = std::function<AccountNumbers()>;

    // Counts a storage report of the process. Any other parcel changes nothing, nor does the report
    // of a set of I/Os, which would be counted twice if AIO counts them as well.
    void advance(const AnalyticsParcel& parcel);

    // What the parcels are read from at each scrape, on the scraping thread; empty: no parcels.
    // What was given before is not called any more when this returns.
    void followAccount(AccountSource account);

    std::vector<prometheus::MetricFamily> Collect() const override;

private:
    static constexpr std::size_t quantileCount = 5;
    static constexpr std::size_t boundCount = 4;

    struct Storage {
        std::array<u64, boundCount + 1> classes{};
        u64 failedIos = 0;
        u64 episodes = 0;
        u64 episodeMs = 0;
        bool hasReport = false; // what follows is of the last one
        std::array<double, quantileCount> quantileSeconds{};
        std::array<double, boundCount> boundSeconds{};
    };

    mutable CheckedMutex m_mutex;
    Storage m_storage ANALYTICS_GUARDED_BY(m_mutex);

    // Held while the account is read; never together with m_mutex.
    mutable CheckedMutex m_accountMutex;
    AccountSource m_account ANALYTICS_GUARDED_BY(m_accountMutex);

    static void count(Storage& storage, const AnalyticsParcel& report);
    static void measure(Storage& storage, const AnalyticsParcel& report);
    static std::vector<prometheus::MetricFamily> familiesOf(const Storage& storage);
    static prometheus::MetricFamily familyOf(const AccountNumbers& account);
};
