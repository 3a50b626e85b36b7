#include "common/Analytics/AnalyticsMetrics.h"
#include "host/testing/LogText.h"
#include "tests/support/Test.h"

namespace {

TEST(MaximumMetric, IsTheLargestSampleSinceTheReset) {
    RecordingLog log;
    AnalyticsMaximumMetric metric("depth");
    std::string values;
    for (const u64 sample : {u64{0}, u64{5}, u64{5}, u64{3}, ~u64{0}, u64{1}}) {
        values += std::to_string(metric) + " ";
        metric.update(sample);
    }
    metric.reset();
    values += std::to_string(metric) + "\n";
    metric.update(1);
    EXPECT_EQ(values + toBriefText(log), R"(0 0 5 5 5 18446744073709551615 0
kel info update "updated metric depth val=5 \n"
kel info update "updated metric depth val=18446744073709551615 \n"
kel info update "updated metric depth val=1 \n"
)");
}

} // namespace
