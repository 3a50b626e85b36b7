#include "common/Analytics/AnalyticsMetrics.h"
#include "host/testing/LogText.h"
#include "tests/support/Test.h"

namespace {

TEST(MaximumMetric, IsTheLargestSampleSinceTheReset) {
    RecordingLog log;
    AnalyticsMaximumMetric metric("depth");
    std::string values = std::to_string(metric);
    for (const u64 sample : {u64{0}, u64{5}, u64{5}, u64{3}, ~u64{0}, u64{1}}) {
        metric.update(sample);
        values += " " + std::to_string(metric);
    }
    metric.reset();
    EXPECT_EQ(values, "0 0 5 5 5 18446744073709551615 18446744073709551615");
    EXPECT_EQ(metric, 0U);
    metric.update(1);
    EXPECT_EQ("\n" + toBriefText(log), R"(
kel info update "updated metric depth val=5 \n"
kel info update "updated metric depth val=18446744073709551615 \n"
kel info update "updated metric depth val=1 \n"
)");
}

} // namespace
