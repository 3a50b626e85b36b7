#include "common/infra/AIO.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/MemShield.h"
#include "common/infra/Singleton.h"
#include "common/infra/Timer.h"
#include "common/infra/Tweaks.h"

struct ANALYTICS_EXPORT PluginService {};

// What a plugin sees of the process's singletons: of the services that the library calls, and at
// last of a service that only the plugins use, created by whoever asks first.
extern "C" ANALYTICS_VISIBLE void listInstances(std::vector<const void*>& instances) {
    instances = {Singleton<ITimer, Timer>::getInstance(),
                 Singleton<IParcelOutbox, ParcelOutbox>::getInstance(),
                 Singleton<MemShield, MemShield>::getInstance(),
                 Singleton<DynamicTweaks, DynamicTweaks>::getInstance(),
                 Singleton<Tweaks, Tweaks>::getInstance(),
                 Singleton<AIO, AIO>::getInstance(),
                 Singleton<PluginService, PluginService>::instance()};
}
