#include "host/forwarding/PrometheusEndpoint.h"
#include "host/testing/RecordingAnswers.h"
#include "tests/support/Examples.h"
#include "tests/support/Process.h"

namespace {

class PrometheusTest : public testing::Test {
protected:
    void send(const AnalyticsParcel& parcel, bool isFromSpool = false) {
        Record record = makeRecord(1);
        record.parcel = isFromSpool ? nullptr : &parcel;
        endpoint->send({&record});
        EXPECT_EQ(answers.take(1), "1 delivered");
    }
    std::string scrape() const {
        const std::string read = "import http.client as h; c = h.HTTPConnection('" +
                                 endpoint->address() +
                                 "'); c.request('GET', '/metrics'); "
                                 "print(c.getresponse().read().decode(), end='')";
        Process python("python3 -c \"" + read + "\"", folder / "scraped");
        EXPECT_EQ(python.wait(), 0) << python.output();
        return python.output();
    }
    // The lines with a value, without the endpoint's own figures.
    std::string values() const {
        const std::regex line("(analytics_[^\n]*\n)|[^\n]*\n");
        return std::regex_replace(scrape(), line, "$1");
    }

    const std::string loopback = "127.0.0.1:";
    const TempFolder folder;
    RecordingAnswers answers;
    const std::unique_ptr<IPrometheusEndpoint> endpoint = openPrometheusEndpoint("0");
};

} // namespace

TEST_F(PrometheusTest, ReportsAddToTheCountersWhileTheRestIsOfTheLast) {
    endpoint->start(answers);
    const std::string nothingYet = values();
    EXPECT_FALSE(holds(nothingYet, "quantile"));
    send(AnalyticsParcel());
    send(storageReport().addEntry("set", std::string("reads")));
    send(storageReport(), true);
    EXPECT_EQ(values(), nothingYet);
    for (const u32 p50Us : {70U, 150U}) {
        send(storageReport().addEntry("p50Us", p50Us).addEntry("cm1", 4'000'000'000U));
    }
    AccountNumbers account{20, 8, 10, 5, 4, 3, 6, 0, {}, 2, 1};
    endpoint->followAccount([&] { return account; });
    account.delivered = 11;
    EXPECT_EQ(values(), R"(analytics_storage_ios_total{class="1"} 8000000000
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
analytics_parcels_total{fate="pushed"} 20
analytics_parcels_total{fate="restored"} 8
analytics_parcels_total{fate="delivered"} 11
analytics_parcels_total{fate="failed"} 5
analytics_parcels_total{fate="dropped"} 4
analytics_parcels_total{fate="evicted"} 3
analytics_parcels_total{fate="discarded"} 2
analytics_parcels_total{fate="output_lost"} 1
)");
    EXPECT_TRUE(holds(scrape(), "# TYPE analytics_storage_latency_seconds untyped\n"));
    Process promtool("promtool check metrics <" + (folder / "scraped"), folder / "out");
    EXPECT_EQ(promtool.wait(), 0) << promtool.output();
    endpoint->followAccount({});
    AnalyticsParcel idle = storageReport();
    idle.addEntry("cm1", u32{0}).addEntry("cm2", u32{0}).addEntry("cm3", u32{0});
    send(idle.addEntry("cm4", u32{0}));
    EXPECT_TRUE(holds(values(), "latency_seconds{quantile=\"0.5\"} Nan"));
    EXPECT_FALSE(holds(values(), "parcels"));
}

TEST_F(PrometheusTest, OnlyAnAddressThatIsFreeIsListenedAt) {
    const std::string none = "' is no address for Prometheus to scrape, such as 127.0.0.1:9464";
    for (const char* text :
         {"", ":", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "host:9464", "127.0.0.1:9464s",
          "9464,9465", "127.0.0.1:-1", "[]:9464", "x[::1]:1"}) {
        EXPECT_EQ(messageOf([&] { openPrometheusEndpoint(text); }), "'" + (text + none));
    }
    for (const std::string& taken : {endpoint->address(), std::string("192.0.2.1:65535")}) {
        EXPECT_TRUE(
            holds(messageOf([&] { openPrometheusEndpoint(taken); }), "cannot listen at " + taken));
    }
    for (const auto& [text, address] : {std::pair("localhost:0", loopback),
                                        {"0", loopback},
                                        {":0", loopback},
                                        {"0.0.0.0:0", "0.0.0.0:"}}) {
        EXPECT_EQ(openPrometheusEndpoint(text)->address().rfind(address, 0), 0U) << text;
    }
}
