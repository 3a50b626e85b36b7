#pragma once

#include <vector>

// What a plugin sees of the process's singletons, as addresses.
struct PluginInstances {
    // Of the services that the library calls, in the order: timer, outbox, memory tracker, live
    // tunables, tunables, I/O.
    std::vector<const void*> (*ofTheLibrary)();
    // Of a service that only the plugins use, created by whoever asks first.
    const void* (*ofThePluginsOnly)();
};
