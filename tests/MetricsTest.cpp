#include "common/Analytics/AnalyticsMetrics.h"
#include "host/testing/LogText.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

constexpr u64 top = ~u64{0};
constexpr std::optional<u64> reset = std::nullopt;

TEST(MaximumMetric, KeepsTheLargestSampleAndLogsEachNewMaximum) {
    using Steps = std::vector<std::optional<u64>>; // samples and resets
    const auto check = [](const std::string& name, const Steps& steps, u64 value,
                          const std::vector<u64>& maxima) {
        RecordingLog log;
        AnalyticsMaximumMetric metric(name);
        for (const std::optional<u64>& sample : steps) {
            sample ? metric.update(*sample) : metric.reset();
        }
        std::string lines;
        for (const u64 maximum : maxima) {
            lines +=
                "kel info [virtual void AnalyticsMaximumMetric::update(u64)] 3: updated metric " +
                name + " val=" + std::to_string(maximum) + " \n";
        }
        EXPECT_EQ(metric, value) << name;
        EXPECT_EQ(toText(log), lines) << name;
    };
    check("zero", {0}, 0, {});
    check("depth", {5, 5, 3, 6}, 6, {5, 6});
    check("unsigned", {top / 2 + 1, 1, top, top}, top, {top / 2 + 1, top});
    check("again", {9, reset, 1}, 1, {9, 1});
    check("", {9, reset}, 0, {9});
}

} // namespace
