#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Singleton.h"

class ANALYTICS_EXPORT DynamicTweaks : public Singleton<DynamicTweaks, DynamicTweaks> {
public:
    bool t_disablePeriodicAnalytics = false;
    u32 t_StorageAnalyticsLatencyThreshold = 100;
};
