#include "common/Analytics/AnalyticsMetrics.h"
#include "tests/support/LogText.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr u64 highest = std::numeric_limits<u64>::max();
constexpr u64 signBit = u64{1} << 63;
constexpr std::optional<u64> reset = std::nullopt;

struct Scenario {
    std::string name;
    std::vector<std::optional<u64>> steps; // samples and resets
    u64 value;
    std::vector<std::string> logged; // new maxima
};

const Scenario scenarios[] = {
    {"untouched", {}, 0, {}},
    {"zero", {0}, 0, {}},
    {"depth", {5, 5, 3}, 5, {"5"}},
    {"rising", {1, 2}, 2, {"1", "2"}},
    {"top", {highest, 1, highest}, highest, {"18446744073709551615"}},
    {"unsigned", {signBit, 1}, signBit, {"9223372036854775808"}},
    {"again", {9, reset, 1}, 1, {"9", "1"}},
    {"cleared", {9, reset, 0}, 0, {"9"}},
    {"", {7}, 7, {"7"}},
};

TEST(MaximumMetric, KeepsTheLargestSampleAndLogsEachNewMaximum) {
    for (const Scenario& scenario : scenarios) {
        RecordingLog log;
        AnalyticsMaximumMetric metric(scenario.name);
        for (const std::optional<u64>& sample : scenario.steps) {
            sample ? metric.update(*sample) : metric.reset();
        }
        std::vector<std::string> lines;
        for (const std::string& value : scenario.logged) {
            lines.push_back("kel info [virtual void AnalyticsMaximumMetric::update(u64)] 3: "
                            "updated metric " +
                            scenario.name + " val=" + value + " \n");
        }
        EXPECT_EQ(metric, scenario.value) << scenario.name;
        EXPECT_EQ(toTexts(log), lines) << scenario.name;
    }
}

TEST(AbsMetric, TakesKindsOfTheHostsOwn) {
    class Sum : public AnalyticsAbsMetric<u64> {
    public:
        using AnalyticsAbsMetric<u64>::AnalyticsAbsMetric;
        void update(u64 value) override { m_value += value; }
    };
    Sum sum("bytes");
    sum.update(2);
    sum.update(3);
    const AnalyticsAbsMetric<u64>& metric = sum;
    EXPECT_EQ(metric, 5U);
    sum.reset();
    EXPECT_EQ(metric, 0U);
}

} // namespace
