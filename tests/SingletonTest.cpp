#include "common/infra/Singleton.h"

#include "common/infra/AIO.h"
#include "common/infra/Mutex.h"
#include "tests/plugin/SingletonPlugin.h"
#include "tests/support/FakeServices.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

// Counts its instances, and lets other threads in while one is being made.
struct Slow {
    Slow() {
        std::this_thread::yield();
        fullyMade = ++made;
    }
    int fullyMade = 0;
    static std::atomic<int> made;
};
std::atomic<int> Slow::made{0};

TEST(Singleton, ManyThreadsCreateOne) {
    using SlowSingleton = Singleton<Slow, Slow>;
    for (int round = 1; round <= 50; ++round) {
        std::atomic<int> atStart{0};
        std::vector<int> seen(8);
        std::vector<std::thread> threads;
        for (int& fullyMade : seen) {
            threads.emplace_back([&] {
                for (++atStart; atStart < 8;) {
                    std::this_thread::yield();
                }
                fullyMade = SlowSingleton::instance()->fullyMade;
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(seen, std::vector<int>(8, round));
        EXPECT_EQ(Slow::made, round);
        delete SlowSingleton::setInstance(nullptr);
    }
}

struct FailsOnce {
    FailsOnce() {
        if (++attempts == 1) {
            throw std::runtime_error("no service yet");
        }
    }
    static int attempts;
};
int FailsOnce::attempts = 0;

TEST(Singleton, StaysEmptyWhenTheConstructorThrows) {
    using Failing = Singleton<FailsOnce, FailsOnce>;
    EXPECT_THROW(Failing::instance(), std::runtime_error);
    EXPECT_EQ(Failing::getInstance(), nullptr);
    FailsOnce* second = Failing::instance(); // the lock was released
    EXPECT_EQ(Failing::instance(), second);
    EXPECT_EQ(FailsOnce::attempts, 2);
    delete Failing::setInstance(nullptr);
}

struct Greeter {
    virtual ~Greeter() = default;
};
struct DefaultGreeter : Greeter {
    explicit DefaultGreeter(int argument = 5000) : made(argument) {}
    int made;
};

TEST(Singleton, AnInstalledInstanceTakesTheCreatedOnesPlace) {
    using Greeters = Singleton<Greeter, DefaultGreeter>;
    EXPECT_EQ(Greeters::getInstance(), nullptr); // asking does not create
    Greeter* created = Greeters::instance();
    EXPECT_EQ(dynamic_cast<DefaultGreeter&>(*created).made, 5000);

    Greeter own;
    EXPECT_EQ(Greeters::setInstance(&own), created);
    EXPECT_EQ(Greeters::instance(), &own);
    EXPECT_EQ(Greeters::setInstance(nullptr), &own);
    EXPECT_EQ(Greeters::getInstance(), nullptr);
    delete created;
}

struct Plugin {
    explicit Plugin(const char* path)
        : handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)),
          instances(reinterpret_cast<PluginInstances*>(dlsym(handle, "pluginInstances"))) {}
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    void* const handle; // never closed: what it created lives on
    PluginInstances* const instances;
};

TEST(Singleton, IsOneAcrossSharedObjectsOfHiddenVisibility) {
    const Plugin first(PLUGIN_1);
    const Plugin second(PLUGIN_2);
    ASSERT_TRUE(first.instances != nullptr && second.instances != nullptr) << dlerror();
    ASSERT_NE(first.instances, second.instances);

    FakeServices services;
    AIO aio;
    Installed<AIO, AIO> installedAio(aio);
    const std::vector<const void*> installed = {
        &static_cast<const ITimer&>(services.timer),
        &static_cast<const IParcelOutbox&>(services.outbox),
        &static_cast<const MemShield&>(services.memShield),
        &services.dynamicTweaks,
        &services.tweaks,
        &aio,
    };
    EXPECT_EQ(first.instances->ofTheLibrary(), installed);
    EXPECT_EQ(second.instances->ofTheLibrary(), installed);
#ifndef __clang__
    EXPECT_EQ(first.instances->ofThePluginsOnly(), second.instances->ofThePluginsOnly());
#endif
}

struct CountingMutex : IMutex {
    void get() override { ++held; }
    void give() override { --held; }
    int held = 0;
};

TEST(Guard, HoldsTheMutexUntilTheScopeIsLeft) {
    CountingMutex mutex;
    try {
        Guard guard(mutex);
        EXPECT_EQ(mutex.held, 1);
        throw std::runtime_error("leaves the scope");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(mutex.held, 0);
    }
}

TEST(Guard, ExcludesOtherThreads) {
    Mutex mutex;
    int count = 0;
    const auto increase = [&] {
        for (int i = 0; i < 10'000; ++i) {
            Guard guard(mutex);
            ++count;
        }
    };
    std::thread other(increase);
    increase();
    other.join();
    EXPECT_EQ(count, 20'000);
}

} // namespace
