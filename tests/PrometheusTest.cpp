#include "host/forwarding/PrometheusCollector.h"
#include "host/forwarding/PrometheusEndpoint.h"
#include "host/forwarding/Record.h"
#include "host/testing/RecordingAnswers.h"
#include "tests/support/Files.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <array>
#include <memory>
#include <sstream>

namespace {

// A storage report of the process.
AnalyticsParcel report(std::array<u32, 5> classes) {
    AnalyticsParcel parcel;
    parcel.setEventName("StoragePeriodicParcel");
    for (std::size_t i = 0; i < classes.size(); ++i) {
        parcel.addEntry("cm" + std::to_string(i + 1), classes[i]);
    }
    parcel.addEntry("boundFastUs", u32{1'000}).addEntry("boundModerateUs", u32{5'000});
    parcel.addEntry("boundSlowUs", u32{20'000}).addEntry("boundVerySlowUs", u32{100'000});
    parcel.addEntry("p50Us", u32{100}).addEntry("p90Us", u32{200}).addEntry("p99Us", u32{3'000});
    parcel.addEntry("p999Us", u32{4'000}).addEntry("maxUs", u32{2'500'000});
    parcel.addEntry("failedIos", u64{7}).addEntry("periodMs", u64{1'000});
    parcel.addEntry("episodes", u32{2}).addEntry("episodeSumMs", u64{1'500});
    return parcel;
}

AccountNumbers exampleAccount() {
    AccountNumbers account;
    account.pushed = 20;
    account.restored = 8;
    account.delivered = 10;
    account.failed = 5;
    account.dropped = 4;
    account.evicted = 3;
    account.waiting = 6;
    account.discarded = 2;
    account.outputLost = 1;
    return account;
}

std::string textOf(const PrometheusCollector& collector) {
    return prometheus::TextSerializer().Serialize(collector.Collect());
}

// The lines with a value; no comments.
std::string valuesOf(const PrometheusCollector& collector) {
    std::istringstream lines(textOf(collector));
    std::string values;
    for (std::string line; std::getline(lines, line);) {
        values += line.front() == '#' ? "" : line + "\n";
    }
    return values;
}

constexpr const char* nothingYet = R"(analytics_storage_ios_total{class="1"} 0
analytics_storage_ios_total{class="2"} 0
analytics_storage_ios_total{class="3"} 0
analytics_storage_ios_total{class="4"} 0
analytics_storage_ios_total{class="5"} 0
analytics_storage_failed_ios_total 0
analytics_storage_episodes_total 0
analytics_storage_episode_seconds_total 0
)";

} // namespace

TEST(PrometheusTest, ReportsAddToTheCountersWhileTheRestIsOfTheLast) {
    PrometheusCollector collector;
    collector.advance(report({1, 2, 3, 4, 5}));
    collector.advance(report({10, 20, 30, 40, 4'000'000'000}).addEntry("p50Us", u32{150}));
    EXPECT_EQ(valuesOf(collector), R"(analytics_storage_ios_total{class="1"} 11
analytics_storage_ios_total{class="2"} 22
analytics_storage_ios_total{class="3"} 33
analytics_storage_ios_total{class="4"} 44
analytics_storage_ios_total{class="5"} 4000000005
analytics_storage_failed_ios_total 14
analytics_storage_episodes_total 4
analytics_storage_episode_seconds_total 3
analytics_storage_latency_seconds{quantile="0.5"} 0.00015
analytics_storage_latency_seconds{quantile="0.9"} 0.0002
analytics_storage_latency_seconds{quantile="0.99"} 0.003
analytics_storage_latency_seconds{quantile="0.999"} 0.004
analytics_storage_latency_seconds{quantile="1"} 2.5
analytics_storage_class_bound_seconds{class="1"} 0.001
analytics_storage_class_bound_seconds{class="2"} 0.005
analytics_storage_class_bound_seconds{class="3"} 0.02
analytics_storage_class_bound_seconds{class="4"} 0.1
)");
}

TEST(PrometheusTest, APeriodWithoutIosHasNoQuantiles) {
    PrometheusCollector collector;
    collector.advance(report({0, 0, 0, 0, 0}));
    EXPECT_TRUE(holds(valuesOf(collector), "latency_seconds{quantile=\"0.5\"} Nan"));
}

TEST(PrometheusTest, WhatIsNoReportOfTheProcessChangesNothing) {
    PrometheusCollector collector;
    collector.advance(AnalyticsParcel());
    collector.advance(report({1, 1, 1, 1, 1}).addEntry("set", std::string("reads")));
    EXPECT_EQ(valuesOf(collector), nothingYet);
}

TEST(PrometheusTest, TheAccountIsReadAtEachScrape) {
    PrometheusCollector collector;
    AccountNumbers account = exampleAccount();
    collector.followAccount([&] { return account; });
    account.delivered = 11;
    const std::string parcels = valuesOf(collector).substr(std::string(nothingYet).size());
    EXPECT_EQ(parcels, R"(analytics_parcels_total{fate="pushed"} 20
analytics_parcels_total{fate="restored"} 8
analytics_parcels_total{fate="delivered"} 11
analytics_parcels_total{fate="failed"} 5
analytics_parcels_total{fate="dropped"} 4
analytics_parcels_total{fate="evicted"} 3
analytics_parcels_total{fate="discarded"} 2
analytics_parcels_total{fate="output_lost"} 1
)");
    collector.followAccount({});
    EXPECT_EQ(valuesOf(collector), nothingYet);
}

TEST(PrometheusTest, PromtoolFindsNothingWrongWithTheText) {
    PrometheusCollector collector;
    collector.advance(report({1, 2, 3, 4, 5}));
    collector.followAccount(exampleAccount);
    const TempFolder folder;
    const std::string path = folder.write("metrics", textOf(collector));
    Process promtool({"sh", "-c", "promtool check metrics <" + path}, folder / "out");
    EXPECT_EQ(promtool.wait(), 0);
    EXPECT_EQ(promtool.output(), "");
}

// A web server takes about a second to end.
TEST(PrometheusTest, TheLoopbackInterfaceIsTheDefault) {
    for (const char* address : {"0", "localhost:0"}) {
        EXPECT_EQ(openPrometheusEndpoint(address)->address().rfind("127.0.0.1:", 0), 0U) << address;
    }
    EXPECT_EQ(openPrometheusEndpoint("0.0.0.0:0")->address().rfind("0.0.0.0:", 0), 0U);
}

TEST(PrometheusTest, AnAddressThatIsNoneOrTakenIsRefusedByName) {
    for (const char* address :
         {"", ":", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "host:9464", "127.0.0.1:9464s",
          "9464,9465", "127.0.0.1:-1", "[]:9464", "x[::1]:1"}) {
        EXPECT_TRUE(holds(messageOf([&] { openPrometheusEndpoint(address); }),
                          "'" + std::string(address) + "' is no address"));
    }
    const auto first = openPrometheusEndpoint("0");
    EXPECT_TRUE(holds(messageOf([&] { openPrometheusEndpoint(first->address()); }),
                      "cannot listen at " + first->address()));
}

TEST(PrometheusTest, ARealPrometheusScrapesWhatTheEndpointIsSent) {
    const auto endpoint = openPrometheusEndpoint("0");
    RecordingAnswers answers;
    endpoint->start(answers);
    endpoint->followAccount(exampleAccount);
    const AnalyticsParcel parcel = report({1, 2, 3, 4, 5});
    Record withParcel;
    withParcel.ticket = 1;
    withParcel.parcel = &parcel;
    Record fromSpool;
    fromSpool.ticket = 2;
    endpoint->send({&withParcel, &fromSpool});
    EXPECT_EQ(answers.take(2), "1 delivered, 2 delivered");

    const TempFolder folder;
    const std::string configuration = folder.write(
        "prometheus.yml", "global: {scrape_interval: 100ms, scrape_timeout: 100ms}\n"
                          "scrape_configs: [{job_name: host, static_configs: [{targets: ['" +
                              endpoint->address() + "']}]}]\n");
    const int port = freePorts(1)[0];
    Process prometheus({"prometheus", "--config.file=" + configuration,
                        "--storage.tsdb.path=" + (folder / "data"),
                        "--web.listen-address=127.0.0.1:" + std::to_string(port)},
                       folder / "out");
    for (const auto& [query, value] :
         {std::pair("sum(analytics_storage_ios_total)", "15"),
          {"analytics_storage_latency_seconds{quantile=\"1\"}", "2.5"},
          {"analytics_storage_class_bound_seconds{class=\"4\"}", "0.1"},
          {"analytics_parcels_total{fate=\"evicted\"}", "3"}}) {
        EXPECT_TRUE(waitUntil([&, words = query, expected = value] {
            Process promtool(
                {"promtool", "query", "instant", "http://127.0.0.1:" + std::to_string(port), words},
                folder / "answer");
            promtool.wait();
            return promtool.output().find("=> " + std::string(expected) + " @") !=
                   std::string::npos;
        })) << query
            << readFile(folder / "answer") << prometheus.output();
    }
}
