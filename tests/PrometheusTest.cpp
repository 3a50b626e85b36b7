#include "host/forwarding/PrometheusCollector.h"
#include "host/forwarding/PrometheusEndpoint.h"
#include "host/testing/RecordingAnswers.h"
#include "tests/support/Examples.h"
#include "tests/support/Files.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <sstream>

namespace {

AccountNumbers exampleAccount() {
    return {20, 8, 10, 5, 4, 3, 6, 0, {}, 2, 1};
}

// The lines with a value; no comments.
std::string valuesOf(const PrometheusCollector& collector) {
    std::istringstream lines(prometheus::TextSerializer().Serialize(collector.Collect()));
    std::string values;
    for (std::string line; std::getline(lines, line);) {
        values += line.front() == '#' ? "" : line + "\n";
    }
    return values;
}

} // namespace

TEST(PrometheusTest, ReportsAddToTheCountersWhileTheRestIsOfTheLast) {
    PrometheusCollector collector;
    const std::string nothingYet = valuesOf(collector);
    collector.advance(AnalyticsParcel());
    collector.advance(storageReport().addEntry("set", std::string("reads")));
    EXPECT_EQ(valuesOf(collector), nothingYet);
    EXPECT_FALSE(holds(nothingYet, "quantile")) << nothingYet;
    for (const u32 p50Us : {70U, 150U}) {
        collector.advance(storageReport().addEntry("p50Us", p50Us).addEntry("cm1", 4'000'000'000U));
    }
    const std::string reported = R"(analytics_storage_ios_total{class="1"} 8000000000
analytics_storage_ios_total{class="2"} 60
analytics_storage_ios_total{class="3"} 8
analytics_storage_ios_total{class="4"} 2
analytics_storage_ios_total{class="5"} 0
analytics_storage_failed_ios_total 12
analytics_storage_episodes_total 10
analytics_storage_episode_seconds_total 1.5
analytics_storage_latency_seconds{quantile="0.5"} 0.00015
analytics_storage_latency_seconds{quantile="0.9"} 0.0005
analytics_storage_latency_seconds{quantile="0.99"} 1.234567
analytics_storage_latency_seconds{quantile="0.999"} 0.034567
analytics_storage_latency_seconds{quantile="1"} 4294.967295
analytics_storage_class_bound_seconds{class="1"} 0.0009
analytics_storage_class_bound_seconds{class="2"} 0.005
analytics_storage_class_bound_seconds{class="3"} 0.0205
analytics_storage_class_bound_seconds{class="4"} 1
)";
    EXPECT_EQ(valuesOf(collector), reported);
    AccountNumbers account = exampleAccount();
    collector.followAccount([&] { return account; });
    account.delivered = 11;
    EXPECT_EQ(valuesOf(collector), reported + R"(analytics_parcels_total{fate="pushed"} 20
analytics_parcels_total{fate="restored"} 8
analytics_parcels_total{fate="delivered"} 11
analytics_parcels_total{fate="failed"} 5
analytics_parcels_total{fate="dropped"} 4
analytics_parcels_total{fate="evicted"} 3
analytics_parcels_total{fate="discarded"} 2
analytics_parcels_total{fate="output_lost"} 1
)");
    collector.followAccount({});
    EXPECT_EQ(valuesOf(collector), reported);
    AnalyticsParcel idle = storageReport();
    for (const char* key : {"cm1", "cm2", "cm3", "cm4"}) {
        idle.addEntry(key, u32{0});
    }
    collector.advance(idle);
    EXPECT_TRUE(holds(valuesOf(collector), "latency_seconds{quantile=\"0.5\"} Nan"));
}

TEST(PrometheusTest, AnAddressThatIsNoneOrTakenIsRefusedByName) {
    const auto refusal = [](const std::string& address) {
        return messageOf([&] { openPrometheusEndpoint(address); });
    };
    for (const std::string address :
         {"", ":", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "host:9464", "127.0.0.1:9464s",
          "9464,9465", "127.0.0.1:-1", "[]:9464", "x[::1]:1"}) {
        EXPECT_TRUE(holds(refusal(address), "'" + address + "' is no address"));
    }
    const auto first = openPrometheusEndpoint("localhost:0");
    for (const std::string& address : {first->address(), std::string("192.0.2.1:65535")}) {
        EXPECT_TRUE(holds(refusal(address), "cannot listen at " + address));
    }
    EXPECT_TRUE(holds(openPrometheusEndpoint("0.0.0.0:0")->address(), "0.0.0.0:"));
}

TEST(PrometheusTest, WhatTheEndpointIsSentIsScrapedAndPrometheusFindsNothingWrongWithIt) {
    const auto endpoint = openPrometheusEndpoint("0");
    ASSERT_EQ(endpoint->address().rfind("127.0.0.1:", 0), 0U) << "the default";
    RecordingAnswers answers;
    endpoint->start(answers);
    endpoint->followAccount(exampleAccount);
    const AnalyticsParcel parcel = storageReport();
    Record withParcel = makeRecord(1);
    withParcel.parcel = &parcel;
    const Record fromSpool = makeRecord(2);
    endpoint->send({&withParcel, &fromSpool});
    EXPECT_EQ(answers.take(2), "1 delivered, 2 delivered");
    const std::string answer = httpGet(
        std::stoi(endpoint->address().substr(std::string("127.0.0.1:").size())), "/metrics");
    const std::string text = answer.substr(answer.find("\r\n\r\n") + 4);
    EXPECT_TRUE(holds(text, "analytics_storage_ios_total{class=\"1\"} 120\n"));
    EXPECT_TRUE(holds(text, "# TYPE analytics_storage_latency_seconds untyped\n"));
    EXPECT_TRUE(holds(text, "analytics_parcels_total{fate=\"evicted\"} 3\n"));
    const TempFolder folder;
    Process promtool({"sh", "-c", "promtool check metrics <" + folder.write("metrics", text)},
                     folder / "out");
    EXPECT_EQ(promtool.wait(), 0);
    EXPECT_EQ(promtool.output(), "");
}
