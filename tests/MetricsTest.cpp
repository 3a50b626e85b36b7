#include "common/Analytics/AnalyticsMetrics.h"
#include "host/testing/LogText.h"

#include <gtest/gtest.h>

namespace {

constexpr u64 top = ~u64{0};

TEST(MaximumMetric, IsTheLargestSampleSinceTheReset) {
    RecordingLog log;
    AnalyticsMaximumMetric metric("depth");
    EXPECT_EQ(metric, 0U);
    const std::pair<u64, u64> rows[] = {{0, 0}, {5, 5}, {5, 5}, {3, 5}, {top, top}, {1, top}};
    for (const auto& [sample, maximum] : rows) {
        metric.update(sample);
        EXPECT_EQ(metric, maximum) << sample;
    }
    metric.reset();
    EXPECT_EQ(metric, 0U);
    metric.update(1);
    std::string lines;
    for (const u64 maximum : {u64{5}, top, u64{1}}) {
        lines += "kel info [virtual void AnalyticsMaximumMetric::update(u64)] 3: updated metric "
                 "depth val=" +
                 std::to_string(maximum) + " \n";
    }
    EXPECT_EQ(toText(log), lines);
}

} // namespace
