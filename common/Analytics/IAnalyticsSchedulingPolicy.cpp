#include "common/Analytics/IAnalyticsSchedulingPolicy.h"

tm IAnalyticsSchedulingPolicy::getCurtime() {
    const time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    return utc;
}
