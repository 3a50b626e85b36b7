#pragma once

#include "common/Analytics/IAnalyticsSchedulingPolicy.h"

// A report every so many seconds, counted from the moment of asking and not aligned to any clock.
// Immutable, so any thread may ask.
class ANALYTICS_VISIBLE FixedFrequencySchedulingPolicy : public IAnalyticsSchedulingPolicy {
public:
    // A frequency of 0 is reported by an assertion line and kept: every answer is then 0.
    FixedFrequencySchedulingPolicy(u64 frequencySeconds);
    ~FixedFrequencySchedulingPolicy() override = default;

    u64 getNextSchedule() override;

private:
    u64 m_frequencySecs;
};
