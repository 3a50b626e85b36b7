#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <ctime>

// Answers when the next periodic report is due.
class ANALYTICS_VISIBLE IAnalyticsSchedulingPolicy {
public:
    virtual ~IAnalyticsSchedulingPolicy() = default;

    // Milliseconds from now until the next report. Each call stands alone. A scheduler calls it on
    // the host's thread when it is constructed, and on the timer's thread at the end of each
    // expiry. What it throws leaves the constructor, or passes to the timer service with nothing
    // armed.
    virtual u64 getNextSchedule() = 0;

protected:
    // The current UTC time. Policies ask for it here, so that a subclass can supply another time.
    virtual tm getCurtime();
};
