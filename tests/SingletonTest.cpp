#include "common/infra/Singleton.h"

#include "common/infra/AIO.h"
#include "host/testing/FakeServices.h"
#include "tests/support/Together.h"

#include <dlfcn.h>

namespace {

struct Greeter {
    virtual ~Greeter() = default;
};
// Lets other threads in while it is being made, and fails when told to.
struct DefaultGreeter : Greeter {
    DefaultGreeter() {
        if (std::exchange(failNext, false)) {
            throw std::runtime_error("no greeter yet");
        }
        std::this_thread::yield();
        ++made;
    }
    inline static bool failNext = false;
    inline static std::atomic<int> made{0};
};
using Greeters = Singleton<Greeter, DefaultGreeter>;

TEST(Singleton, IsCreatedByItsFirstUseOfManyThreads) {
    DefaultGreeter::failNext = true;
    EXPECT_THROW(Greeters::instance(), std::runtime_error);
    EXPECT_EQ(Greeters::getInstance(), nullptr); // asking does not create
    Greeter* created = Greeters::instance();     // the lock was released
    EXPECT_EQ(Greeters::getInstance(), created);
    Greeter own;
    EXPECT_EQ(Greeters::setInstance(&own), created);
    EXPECT_EQ(Greeters::setInstance(nullptr), &own);
    delete created;
    for (DefaultGreeter::made = 0; DefaultGreeter::made < 50;) {
        const int before = DefaultGreeter::made;
        startTogether(8, [] { Greeters::instance(); });
        ASSERT_EQ(DefaultGreeter::made, before + 1);
        delete Greeters::setInstance(nullptr);
    }
}

// Registered before any object of static storage is made, so that it runs when all of them are
// gone: a first use there has to work as well, or no test ends with success.
struct LateGreeter : Greeter {};
__attribute__((constructor(101))) void useSingletonAfterAllDestructors() {
    static_cast<void>(std::atexit([] {
        if (Singleton<Greeter, LateGreeter>::instance() == nullptr) {
            std::abort();
        }
    }));
}

TEST(Singleton, IsOneAcrossSharedObjectsOfHiddenVisibility) {
    FakeServices services;
    AIO aio;
    Installed<AIO, AIO> installedAio(aio);
    using Instances = std::vector<const void*>;
    const Instances installed = {&services.timer,         &services.outbox, &services.memShield,
                                 &services.dynamicTweaks, &services.tweaks, &aio};
    std::set<const void*> ofThePluginsOnly; // never closed: what they created lives on
    for (const char* path : {PLUGIN_1, PLUGIN_2}) {
        void* symbol = dlsym(dlopen(path, RTLD_NOW | RTLD_LOCAL), "listInstances");
        ASSERT_NE(symbol, nullptr) << dlerror();
        Instances seen;
        reinterpret_cast<void (*)(Instances&)>(symbol)(seen);
        ofThePluginsOnly.insert(seen.back());
        seen.pop_back();
        EXPECT_EQ(seen, installed) << path;
    }
#ifndef __clang__
    EXPECT_EQ(ofThePluginsOnly.size(), 1U);
#endif
}

} // namespace
