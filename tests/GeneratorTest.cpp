#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "common/Analytics/PeriodicAnalyticsGeneratorAbs.h"
#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/FakeAio.h"
#include "tests/support/FakeServices.h"
#include "tests/support/LogText.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
using U32Entries = std::map<std::string, u32>;

class GeneratorTest : public testing::Test {
protected:
    FakeServices services;
    RecordingLog log;

    static TrackedPtr<AnalyticsParcel> finalize(IPeriodicAnalyticsParcelFinalizer& finalizer) {
        return {finalizer.finalizeParcel(), TRACKED_DELETE};
    }
    static u64 seconds(const AnalyticsParcel& parcel) { return parcel.getU64Entries().at("cd11"); }
    static std::string addressOf(const AnalyticsParcel& parcel) {
        std::ostringstream text;
        text << static_cast<const void*>(&parcel);
        return text.str();
    }
    static std::string creationLine(const AnalyticsParcel& parcel, const std::string& name,
                                    const std::string& category, u64 startMs, u64 endMs) {
        return "common info [AnalyticsParcel*PeriodicAnalyticsGeneratorAbs::"
               "createPeriodicAnalyticsParcel(const std::string&, const std::string&)] 3: "
               " periodicAnalyticsParcel=" +
               addressOf(parcel) + " PeriodicAnalyticsParcel data:kelTimeStamp=" +
               std::to_string(parcel.getKelTimeStamp()) + ", parcelName=" + name +
               " , category=" + category +
               " , accountType=1 , priority=0 , m_startTimeStamp=" + std::to_string(startMs) +
               " , m_endTimeStamp=" + std::to_string(endMs) + " \n";
    }
    void TearDown() override { EXPECT_EQ(services.memShield.live(), 0u); }
};

// A report of a host's own.
struct CacheGenerator : PeriodicAnalyticsGeneratorAbs {
    std::function<void()> beforeParcel = [] {};
    AnalyticsParcel* made = nullptr;

    IAnalyticsSchedulingPolicy* createPolicy() override { return nullptr; }
    AnalyticsParcel* finalizeInternal() override {
        beforeParcel();
        made = createPeriodicAnalyticsParcel("CachePeriodicParcel", "cache");
        return made;
    }
};

TEST_F(GeneratorTest, PeriodsJoinAndAreCountedInWholeSeconds) {
    services.timer.advanceTo(100);
    CacheGenerator generator;
    u64 startMs = 100;
    const std::pair<u64, u64> periods[] = {{1'999, 1}, {999, 0}, {86'400'000, 86'400}, {0, 0}};
    for (const auto& [ms, cd11] : periods) {
        log.clear();
        services.timer.advance(ms);
        const auto parcel = finalize(generator);
        EXPECT_EQ(parcel.get(), generator.made);
        EXPECT_EQ(parcel->getEventName(), "CachePeriodicParcel");
        EXPECT_EQ(parcel->getCategory(), "cache");
        EXPECT_EQ(parcel->getAccount(), AnalyticsParcel::KEL);
        EXPECT_EQ(parcel->getEventPriority(), AnalyticsParcel::Normal);
        EXPECT_EQ(parcel->getU64Entries(), (std::map<std::string, u64>{{"cd11", cd11}}));
        EXPECT_EQ(toTexts(log), Texts{creationLine(*parcel, "CachePeriodicParcel", "cache", startMs,
                                                   startMs + ms)});
        startMs += ms;
    }
}

TEST_F(GeneratorTest, APeriodGoesOnWhenItsParcelFails) {
    CacheGenerator generator;
    generator.beforeParcel = [] { throw std::runtime_error("no cache"); };
    services.timer.advance(2'000);
    EXPECT_THROW(generator.finalizeParcel(), std::runtime_error);
    generator.beforeParcel = [] {};
    services.timer.advance(3'000);
    EXPECT_EQ(seconds(*finalize(generator)), 5u);
    EXPECT_EQ(seconds(*finalize(generator)), 0u);
}

class StorageGeneratorTest : public GeneratorTest {
protected:
    static std::string summaryLine(const std::string& pairs, const StorageAnalyticsCounters& from) {
        std::ostringstream text;
        text << "common info [virtual AnalyticsParcel*StorageAnalyticsGenerator::"
                "finalizeInternal()] 3: StoragePeriodicParcel, Event Label="
             << pairs << ", Event Value=" << from.avrHighStorageLatencyDuration;
        for (int i = 0; i < 5; ++i) {
            text << ", storageLatency[" << i << "]=" << from.storageLatency[i];
        }
        text << ", maxHighStorageLatencyDuration=" << from.maxHighStorageLatencyDuration << "\n\n";
        return text.str();
    }
    static U32Entries entriesOf(const StorageAnalyticsCounters& counters) {
        const u32* classes = counters.storageLatency;
        return {{"cm1", classes[0]}, {"cm2", classes[1]},
                {"cm3", classes[2]}, {"cm4", classes[3]},
                {"cm5", classes[4]}, {"cm6", counters.maxHighStorageLatencyDuration}};
    }
};

TEST_F(StorageGeneratorTest, ConstructionWritesOneLineWithoutText) {
    StorageAnalyticsGenerator generator;
    EXPECT_EQ(toTexts(log),
              Texts{"common info "
                    "[StorageAnalyticsGenerator::StorageAnalyticsGenerator()] 3: \n"});
}

TEST_F(StorageGeneratorTest, PublishesTheCountersAndHowTheThresholdsCompare) {
    constexpr u32 top = 4294967295u;
    const struct {
        StorageAnalyticsCounters counters;
        u32 tunable;
        std::string pairs;
    } cases[] = {
        {{50, {120, 30, 4, 1, 0}, 7, 12}, 100, "[Latency Threshold=50][lt=100]"},
        {{100, {1, 2, 3, 4, 5}, 6, 7}, 100, "[Latency Threshold=100][eq=100]"},
        {{top, {top, top, top, top, top}, top, top}, 0, "[Latency Threshold=4294967295][gt=0]"},
        {{0, {0, 0, 0, 0, 1}, 1, 0}, top, "[Latency Threshold=0][lt=4294967295]"},
        {{0, {0, 0, 0, 0, 0}, 0, 0}, 0, "[Latency Threshold=0][eq=0]"},
    };
    StorageAnalyticsGenerator generator;
    u64 startMs = 0;
    for (const auto& [counters, tunable, pairs] : cases) {
        SCOPED_TRACE(pairs);
        storageCounters() = counters;
        services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = tunable;
        services.timer.advance(61'500);
        log.clear();
        const auto parcel = finalize(generator);
        EXPECT_EQ(parcel->getEventName(), "StoragePeriodicParcel");
        EXPECT_EQ(parcel->getCategory(), "storage");
        EXPECT_EQ(parcel->getText(), pairs);
        EXPECT_EQ(parcel->getValue(), counters.avrHighStorageLatencyDuration);
        EXPECT_EQ(parcel->getU32Entries(), entriesOf(counters));
        EXPECT_EQ(seconds(*parcel), 61u);
        EXPECT_EQ(toTexts(log), (Texts{creationLine(*parcel, "StoragePeriodicParcel", "storage",
                                                    startMs, startMs + 61'500),
                                       summaryLine(pairs, counters)}));
        startMs += 61'500;
    }
}

TEST_F(StorageGeneratorTest, ALaterReportLeavesAnEarlierOneAlone) {
    StorageAnalyticsGenerator generator;
    storageCounters() = {1, {1, 1, 1, 1, 1}, 1, 1};
    services.dynamicTweaks.t_StorageAnalyticsLatencyThreshold = 1;
    const auto first = finalize(generator);
    storageCounters() = {2, {0, 0, 0, 0, 2}, 2, 2};
    const auto second = finalize(generator);
    EXPECT_EQ(first->getText(), "[Latency Threshold=1][eq=1]");
    EXPECT_EQ(first->getU32Entries().at("cm5"), 1u);
    EXPECT_EQ(second->getText(), "[Latency Threshold=2][gt=1]");
    EXPECT_EQ(second->getU32Entries(), entriesOf(storageCounters()));
}

TEST_F(StorageGeneratorTest, ThePolicyHasTheIntervalOfTheTunable) {
    StorageAnalyticsGenerator generator;
    const struct {
        const char* interval;
        u64 ms;
        std::size_t assertions;
    } cases[] = {{nullptr, 86'400'000, 0},
                 {"3600", 3'600'000, 0},
                 {"4294967295", 4'294'967'295'000, 0},
                 {"0", 0, 1}};
    for (const auto& [interval, ms, assertions] : cases) {
        if (interval != nullptr) {
            services.tweaks.set("t_StorageAnalyticsIntervalSec", interval);
        }
        log.clear();
        services.memShield.calls.clear();
        const TrackedPtr<IAnalyticsSchedulingPolicy> policy(generator.createPolicy(),
                                                            TRACKED_DELETE);
        EXPECT_EQ(policy->getNextSchedule(), ms);
        EXPECT_EQ(log.texts(AssertLevel).size(), assertions);
        ASSERT_EQ(services.memShield.calls.size(), 1u);
        EXPECT_EQ(withoutLineNumbers(services.memShield.calls[0]),
                  "allocAndRegister " + std::to_string(sizeof(FixedFrequencySchedulingPolicy)) +
                      " 0 FixedFrequencySchedulingPolicy StorageAnalyticsGenerator.cpp N");
    }
}

TEST_F(StorageGeneratorTest, ReportsAtEachInterval) {
    services.tweaks.set("t_StorageAnalyticsIntervalSec", "3600");
    auto* generator = TRACKED_NEW(StorageAnalyticsGenerator)();
    services.timer.advance(10'500); // the first period begins with the generator
    PeriodicAnalyticsScheduler scheduler(generator->createPolicy(), generator);
    EXPECT_EQ(services.timer.advance(7'200'000), 2);
    EXPECT_EQ(seconds(*services.outbox.take()), 3'610u);
    EXPECT_EQ(seconds(*services.outbox.take()), 3'600u);
    EXPECT_EQ(services.outbox.take(), nullptr);
}

// Every allocation on the way to a report fails in turn.
TEST_F(StorageGeneratorTest, AReportThatMemoryFailsLeaksNothingAndKeepsThePeriod) {
    StorageAnalyticsGenerator generator;
    u64 attempts = 0;
    TrackedPtr<AnalyticsParcel> parcel(nullptr, TRACKED_DELETE);
    while (parcel == nullptr) {
        services.timer.advance(1'000);
        const FailingMemory memory(static_cast<int>(attempts++));
        try {
            parcel.reset(generator.finalizeParcel());
            EXPECT_FALSE(memory.hasFailed());
        } catch (const std::bad_alloc&) {
            EXPECT_EQ(services.memShield.live(), 0u) << attempts;
        }
    }
    EXPECT_GT(attempts, 10u);
    EXPECT_EQ(seconds(*parcel), attempts);
}

} // namespace
