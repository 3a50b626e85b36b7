#include "common/Analytics/FixedFrequencySchedulingPolicy.h"

#include "common/Analytics/LogLine.h"

FixedFrequencySchedulingPolicy::FixedFrequencySchedulingPolicy(u64 frequencySeconds)
    : m_frequencySecs(frequencySeconds) {
    EXPECT_OR_REPORT(m_frequencySecs != 0) << " m_frequencySecs=" << m_frequencySecs << " ";
}

u64 FixedFrequencySchedulingPolicy::getNextSchedule() {
    const u64 nextScheduleMs = secondsToMs(m_frequencySecs);
    LOG_LINE(LogModuleKel, InfoLevel) << " m_frequencySecs=" << m_frequencySecs << " "
                                      << " nextScheduleMs=" << nextScheduleMs << " " << std::endl;
    return nextScheduleMs;
}
