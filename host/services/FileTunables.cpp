#include "host/services/FileTunables.h"

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Tweaks.h"
#include "host/services/ReportInterval.h"

#include <algorithm>
#include <limits>

namespace {

constexpr u32 maxU32 = std::numeric_limits<u32>::max();

u32 getInterval() {
    return Singleton<Tweaks, Tweaks>::instance()->uintVal(
        reportIntervalName, DefaultTweakValue<unsigned int>(defaultReportIntervalSec));
}

void setInterval(u32 value) {
    Singleton<Tweaks, Tweaks>::instance()->set(reportIntervalName, std::to_string(value));
}

template <auto Field>
u32 getField() {
    return Singleton<DynamicTweaks, DynamicTweaks>::instance()->*Field;
}

template <auto Field>
void setField(u32 value) {
    auto& field = Singleton<DynamicTweaks, DynamicTweaks>::instance()->*Field;
    field = static_cast<decltype(field.load())>(value);
}

template <auto Field>
constexpr FileTunable micros(const char* name) {
    return {name, TunableKind::Number, 0, maxU32, true, getField<Field>, setField<Field>};
}

} // namespace

const std::array<FileTunable, fileTunableCount> fileTunables = {
    FileTunable{reportIntervalName, TunableKind::Number, 1, maxReportIntervalSec, false,
                getInterval, setInterval},
    FileTunable{"t_disablePeriodicAnalytics", TunableKind::Flag, 0, 1, true,
                getField<&DynamicTweaks::t_disablePeriodicAnalytics>,
                setField<&DynamicTweaks::t_disablePeriodicAnalytics>},
    micros<&DynamicTweaks::t_StorageAnalyticsLatencyThreshold>(
        "t_StorageAnalyticsLatencyThreshold"),
    micros<&DynamicTweaks::t_StorageAnalyticsLatencyFast>("t_StorageAnalyticsLatencyFast"),
    micros<&DynamicTweaks::t_StorageAnalyticsLatencyModerate>("t_StorageAnalyticsLatencyModerate"),
    micros<&DynamicTweaks::t_StorageAnalyticsLatencySlow>("t_StorageAnalyticsLatencySlow"),
    micros<&DynamicTweaks::t_StorageAnalyticsLatencyVerySlow>("t_StorageAnalyticsLatencyVerySlow"),
};

FileTunableValues fileTunablesInForce() {
    FileTunableValues values{};
    std::transform(fileTunables.begin(), fileTunables.end(), values.begin(),
                   [](const FileTunable& tunable) { return tunable.get(); });
    return values;
}

std::string valueText(const FileTunable& tunable, u32 value) {
    if (tunable.kind == TunableKind::Flag) {
        return value != 0 ? "true" : "false";
    }
    return std::to_string(value);
}
