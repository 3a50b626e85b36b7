#include "common/Analytics/AnalyticsParcel.h"
#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/DynamicTweaks.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "common/infra/Tweaks.h"
#include "host/services/MemLedger.h"
#include "host/services/SpdlogSink.h"
#include "host/services/StorageReportFinalizer.h"
#include "host/services/StorageSetGenerator.h"
#include "host/services/TweaksFile.h"
#include "host/testing/Installed.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <utility>

namespace {

constexpr auto analytics = IParcelOutbox::KEL_ANALYTICS;
const std::string folder = testing::TempDir() + "failures." + std::to_string(getpid());
const std::string tunables = folder + "/tweaks.toml";
const std::string logFile = folder + "/log";

// Makes one allocation of an operation fail.
class Failure {
public:
    explicit Failure(int allocationsBefore) : m_before(allocationsBefore) {}

    // Whether the operation came to its end.
    template <typename Operation>
    bool strike(Operation operation) {
        allocationsLeft = m_before;
        bool isDone = true;
        try {
            operation();
        } catch (const std::exception&) {
            isDone = false;
        }
        hasStruck = std::exchange(allocationsLeft, unlimitedAllocations) == unlimitedAllocations;
        return isDone;
    }

    bool hasStruck = false;

private:
    const int m_before;
};

// The reference services, installed for a scope.
struct Services {
    Timer timer;
    ParcelOutbox outbox{3};
    Tweaks tweaks;
    DynamicTweaks live;
    AIO aio;
    Installed<ITimer, Timer> installedTimer{timer};
    Installed<IParcelOutbox, ParcelOutbox> installedOutbox{outbox};
    Installed<Tweaks, Tweaks> installedTweaks{tweaks};
    Installed<DynamicTweaks, DynamicTweaks> installedLive{live};
    Installed<AIO, AIO> installedAio{aio};

    void push(u32 value) {
        AnalyticsParcel* parcel = TRACKED_NEW(AnalyticsParcel)();
        parcel->setValue(value);
        EXPECT_EQ(outbox.pushParcel(parcel, analytics), RC_SUCCESS);
    }
    u64 pop() {
        const TrackedPtr<AnalyticsParcel> parcel(
            static_cast<AnalyticsParcel*>(outbox.popParcel(analytics)), TRACKED_DELETE);
        return parcel->getValue();
    }
    // The I/Os of the fastest class in all reports that were sent.
    u32 reportedIos() {
        u32 ios = 0;
        for (IParcel* parcel : outbox.popParcels(analytics)) {
            const TrackedPtr<AnalyticsParcel> report(static_cast<AnalyticsParcel*>(parcel),
                                                     TRACKED_DELETE);
            ios += report->getU32Entries().at("cm1");
        }
        return ios;
    }
};

// A scheduler whose expiry fails on the timer's thread.
class FailingExpiry {
public:
    FailingExpiry(Failure& failure, PeriodicAnalyticsScheduler& scheduler)
        : m_failure(failure), m_scheduler(scheduler) {}

    void deliverBy(Timer& timer) {
        timer.addTimer(deliver, reinterpret_cast<ITimer::Cookie>(this), 0, true);
        m_delivered.get_future().wait();
        timer.stop(); // drops the timer's own next attempt
    }

private:
    static void deliver(ITimer::Cookie cookie) {
        auto& expiry = *reinterpret_cast<FailingExpiry*>(cookie);
        const bool isDone =
            expiry.m_failure.strike([&] { expiry.m_scheduler.handleReachedTimeout(); });
        expiry.m_delivered.set_value();
        if (!isDone) {
            throw std::bad_alloc();
        }
    }

    Failure& m_failure;
    PeriodicAnalyticsScheduler& m_scheduler;
    std::promise<void> m_delivered;
};

// The next expiry after a failed one sends a report.
void expireAfterFailure(Failure& failure, Services& services,
                        PeriodicAnalyticsScheduler& scheduler) {
    FailingExpiry(failure, scheduler).deliverBy(services.timer);
    if (failure.hasStruck) {
        scheduler.handleReachedTimeout();
    }
}

void reportOfTheProcess(Failure& failure) {
    Services services;
    auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
    auto* finalizer = TRACKED_NEW(StorageReportFinalizer)(generator);
    PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), finalizer);
    expireAfterFailure(failure, services, scheduler);
    services.aio.countIo(1);
    scheduler.handleReachedTimeout();
    EXPECT_EQ(services.reportedIos(), 1U);
}

void reportOfASet(Failure& failure) {
    Services services;
    StorageLatency reads;
    auto* generator = TRACKED_NEW(StorageSetGenerator)("StorageReadsParcel", "reads", reads);
    PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), generator);
    reads.countIo(1);
    expireAfterFailure(failure, services, scheduler);
    reads.countIo(1);
    scheduler.handleReachedTimeout();
    EXPECT_EQ(services.reportedIos(), 2U) << "none is lost with the failed report";
}

void push(Failure& failure) {
    Services services;
    services.push(1);
    services.push(2);
    services.push(3);
    AnalyticsParcel* fourth = TRACKED_NEW(AnalyticsParcel)();
    EXPECT_TRUE(failure.strike([&] { services.outbox.pushParcel(fourth, analytics); }));
    EXPECT_EQ(services.pop(), 2U) << "the outbox was full";
}

void pop(Failure& failure) {
    Services services;
    services.push(1);
    IParcel* popped = nullptr;
    EXPECT_TRUE(failure.strike([&] { popped = services.outbox.popParcel(analytics); }));
    TRACKED_DELETE(static_cast<AnalyticsParcel*>(popped));
    services.push(2);
    EXPECT_EQ(services.pop(), 2U);
}

void popAll(Failure& failure) {
    Services services;
    services.push(1);
    services.push(2);
    std::vector<IParcel*> popped;
    const auto popParcels = [&] { popped = services.outbox.popParcels(analytics); };
    if (!failure.strike(popParcels)) {
        popParcels();
    }
    ASSERT_EQ(popped.size(), 2U);
    for (IParcel* parcel : popped) {
        TRACKED_DELETE(static_cast<AnalyticsParcel*>(parcel));
    }
}

void logLine(Failure& failure) {
    const std::string longText(2000, 'x');
    const auto write = [&] {
        LogItem(LogModuleCommon, InfoLevel, "f()", 3) << longText << 0.5 << longText << std::endl;
    };
    const u64 dropped = LogService::droppedCount();
    EXPECT_TRUE(failure.strike(write));
    EXPECT_LE(LogService::droppedCount(), dropped + (failure.hasStruck ? 1 : 0));
    const auto size = std::filesystem::file_size(logFile);
    write();
    EXPECT_GT(std::filesystem::file_size(logFile), size + 2 * longText.size());
}

void reload(Failure& failure) {
    Services services;
    TweaksFile file(tunables);
    const auto inForce = [&] {
        return std::tuple(services.tweaks.uintVal("t_StorageAnalyticsIntervalSec", 1U),
                          services.live.t_disablePeriodicAnalytics.load(),
                          services.live.t_StorageAnalyticsLatencyThreshold.load());
    };
    const auto before = inForce();
    const std::tuple<u32, bool, u32> after(7, true, 8);
    const bool isDone = failure.strike([&] { file.load(); });
    EXPECT_EQ(inForce(), isDone ? after : before);
    file.load();
    EXPECT_EQ(inForce(), after);
}

void startAndStop(Failure& failure) {
    u64 reports = 0;
    const auto runOnce = [&] {
        Services services;
        const auto sink = SpdlogSink::toFile(logFile);
        TweaksFile file(tunables, {"t_disablePeriodicAnalytics"});
        file.load();
        file.follow();
        services.timer.init();
        TrackedPtr<StorageAnalyticsGenerator> generator(TRACKED_NEW(StorageAnalyticsGenerator)(),
                                                        TRACKED_DELETE);
        TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator->createPolicy(), TRACKED_DELETE);
        PeriodicAnalyticsScheduler scheduler(policy.get(), generator.get());
        static_cast<void>(policy.release());
        static_cast<void>(generator.release());
        services.timer.stop();
        scheduler.handleReachedTimeout();
        reports = services.outbox.size();
    };
    failure.strike(runOnce);
    runOnce();
    EXPECT_EQ(reports, 1U);
}

struct Row {
    const char* name;
    void (*run)(Failure& failure); // makes the next attempt, too
    int leastAllocations;          // of the operation

    friend std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }
};

class FailureTest : public testing::TestWithParam<Row> {
protected:
    void SetUp() override {
        std::filesystem::create_directory(folder);
        std::ofstream(tunables) << "t_StorageAnalyticsIntervalSec = 7\n"
                                   "t_disablePeriodicAnalytics = true\n"
                                   "t_StorageAnalyticsLatencyThreshold = 8\n";
        m_sink = SpdlogSink::toFile(logFile);
        m_usualSink = LogService::setSink(m_sink.get());
    }
    void TearDown() override {
        LogService::setSink(m_usualSink);
        std::filesystem::remove_all(folder);
    }

private:
    std::unique_ptr<SpdlogSink> m_sink;
    ILogSink* m_usualSink = nullptr;
};

// Each allocation of the operation fails once.
TEST_P(FailureTest, IsOverWithTheNextAttempt) {
    int allocations = -1;
    for (bool hasStruck = true; hasStruck && !HasFailure();) {
        const MemReport before = MemLedger::report();
        Failure failure(++allocations);
        SCOPED_TRACE("after " + std::to_string(allocations) + " allocations");
        GetParam().run(failure);
        const MemReport after = MemLedger::report();
        EXPECT_EQ(after.liveBlocks, before.liveBlocks);
        EXPECT_EQ(after.badReleases, before.badReleases);
        hasStruck = failure.hasStruck;
    }
    EXPECT_GE(allocations, GetParam().leastAllocations);
}

INSTANTIATE_TEST_SUITE_P(Of, FailureTest,
                         testing::Values(Row{"AReportOfTheProcess", reportOfTheProcess, 25},
                                         Row{"AReportOfASet", reportOfASet, 25},
                                         Row{"APush", push, 0}, Row{"APop", pop, 0},
                                         Row{"APopOfAll", popAll, 1}, Row{"ALogLine", logLine, 5},
                                         Row{"AReload", reload, 40},
                                         Row{"AStartAndStop", startAndStop, 120}),
                         [](const auto& row) { return row.param.name; });

} // namespace
