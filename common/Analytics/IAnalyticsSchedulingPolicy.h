#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <ctime>

// Answers when the next periodic report is due.
class ANALYTICS_VISIBLE IAnalyticsSchedulingPolicy {
public:
    virtual ~IAnalyticsSchedulingPolicy() = default;

    // Milliseconds from now until the next report. A scheduler's constructor calls it on the host's
    // thread, and the end of each expiry on the timer's thread. An exception leaves the
    // constructor, or passes to the timer service; no timer is armed then.
    virtual u64 getNextSchedule() = 0;

protected:
    // The current UTC time. Policies ask for it here, so that a subclass can supply another time.
    virtual tm getCurtime();
};
