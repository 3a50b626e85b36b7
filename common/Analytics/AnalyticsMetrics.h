#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <string>

// Named numbers that host code keeps up to date while it works:
//
//     AnalyticsMaximumMetric longestWrite("longest write [us]");
//     longestWrite.update(latencyUs);
//     const u64 longest = longestWrite;
//
// Ordinary objects of their owner, not synchronised: one thread at a time.

// A value under a name that never changes. The concrete metric decides what a sample does to it.
template <typename T>
class ANALYTICS_VISIBLE AnalyticsAbsMetric {
public:
    // The value starts at 0. Any name is valid, also an empty one. The name is taken by reference:
    // hosts link to this signature.
    AnalyticsAbsMetric(const std::string& name) : m_value(0), m_name(name) {}
    virtual ~AnalyticsAbsMetric() = default;

    virtual operator T() const { return m_value; }
    virtual void reset() { m_value = 0; }

protected:
    virtual void update(T value) = 0;

    T m_value;                // NOLINT(misc-non-private-member-variables-in-classes)
    const std::string m_name; // NOLINT(misc-non-private-member-variables-in-classes)
};

extern template class AnalyticsAbsMetric<u64>;

// The largest sample since construction or the last reset.
class ANALYTICS_VISIBLE AnalyticsMaximumMetric : public AnalyticsAbsMetric<u64> {
public:
    AnalyticsMaximumMetric(const std::string& name);

    // Logs each new maximum; an equal or smaller sample changes nothing.
    void update(u64 value) override;
};
