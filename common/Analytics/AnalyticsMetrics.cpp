#include "common/Analytics/AnalyticsMetrics.h"

#include "common/Analytics/LogLine.h"

template class AnalyticsAbsMetric<u64>;

AnalyticsMaximumMetric::AnalyticsMaximumMetric(const std::string& name)
    : AnalyticsAbsMetric<u64>(name) {}

void AnalyticsMaximumMetric::update(u64 value) {
    if (value <= m_value) {
        return;
    }
    m_value = value;
    LOG_LINE(LogModuleKel, InfoLevel)
        << "updated metric " << m_name << " val=" << value << " " << std::endl;
}
