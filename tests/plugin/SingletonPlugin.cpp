#include "tests/plugin/SingletonPlugin.h"

#include "common/infra/AIO.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/MemShield.h"
#include "common/infra/Singleton.h"
#include "common/infra/Timer.h"
#include "common/infra/Tweaks.h"

struct ANALYTICS_EXPORT PluginService {};

namespace {

std::vector<const void*> ofTheLibrary() {
    return {
        Singleton<ITimer, Timer>::getInstance(),
        Singleton<IParcelOutbox, ParcelOutbox>::getInstance(),
        Singleton<MemShield, MemShield>::getInstance(),
        Singleton<DynamicTweaks, DynamicTweaks>::getInstance(),
        Singleton<Tweaks, Tweaks>::getInstance(),
        Singleton<AIO, AIO>::getInstance(),
    };
}

const void* ofThePluginsOnly() {
    return Singleton<PluginService, PluginService>::instance();
}

} // namespace

extern "C" {
ANALYTICS_VISIBLE extern const PluginInstances pluginInstances;
const PluginInstances pluginInstances{ofTheLibrary, ofThePluginsOnly};
}
