#include "common/infra/TrackedAllocation.h"

#include "common/Analytics/AnalyticsParcel.h"
#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "tests/support/FakeServices.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

struct Base {
    virtual ~Base() = default;
    int unused = 0;
};
struct OtherBase {
    virtual ~OtherBase() = default;
};
// Its OtherBase lies behind the beginning of its block.
struct Derived : Base, OtherBase {
    explicit Derived(bool& destroyed) : m_destroyed(destroyed) {}
    ~Derived() override { m_destroyed = true; }
    bool& m_destroyed;
};

struct Throws {
    Throws() { throw std::runtime_error("not today"); }
};

class TrackedAllocationTest : public testing::Test {
protected:
    FakeServices services;
    Texts& calls = services.memShield.calls;

    // The calls since the last time.
    Texts newCalls() {
        Texts result;
        result.swap(calls);
        return result;
    }
    void TearDown() override { EXPECT_EQ(services.memShield.live(), 0u); }
};

std::string allocationOf(std::size_t size, const std::string& typeName, int line) {
    return "allocAndRegister " + std::to_string(size) + " 0 " + typeName +
           " TrackedAllocationTest.cpp:" + std::to_string(line);
}

TEST_F(TrackedAllocationTest, NamesTypeFileAndLineToTheTracker) {
    IAnalyticsSchedulingPolicy* policy = TRACKED_NEW(FixedFrequencySchedulingPolicy)(3600);
    EXPECT_EQ(newCalls(), Texts{allocationOf(sizeof(FixedFrequencySchedulingPolicy),
                                             "FixedFrequencySchedulingPolicy", __LINE__ - 2)});
    internal_delete_helper(policy, "Caller.cpp", 77);
    EXPECT_EQ(newCalls(),
              (Texts{"isMemshieldActive", "verifyPtr FixedFrequencySchedulingPolicy Caller.cpp:77",
                     "freeAndUnregister FixedFrequencySchedulingPolicy Caller.cpp:77"}));
}

TEST_F(TrackedAllocationTest, AllocatesAlikeButOnlyCountsReleasesWhileTrackingIsOff) {
    services.memShield.active = false;
    AnalyticsParcel* parcel = TRACKED_NEW(AnalyticsParcel)();
    EXPECT_EQ(newCalls(),
              Texts{allocationOf(sizeof(AnalyticsParcel), "AnalyticsParcel", __LINE__ - 2)});
    TRACKED_DELETE(parcel);
    EXPECT_EQ(newCalls(), (Texts{"isMemshieldActive", "freeAndCount AnalyticsParcel"}));
}

TEST_F(TrackedAllocationTest, ReleasesTheMostDerivedObjectHeldByAnyBase) {
    bool destroyed = false;
    OtherBase* held = TRACKED_NEW(Derived)(destroyed);
    ASSERT_NE(static_cast<void*>(held), dynamic_cast<void*>(held));
    newCalls();
    TRACKED_DELETE(held);
    const std::string line = std::to_string(__LINE__ - 1);
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(newCalls(),
              (Texts{"isMemshieldActive", "verifyPtr Derived TrackedAllocationTest.cpp:" + line,
                     "freeAndUnregister Derived TrackedAllocationTest.cpp:" + line}));
}

TEST_F(TrackedAllocationTest, GivesTheBlockBackWhenTheConstructorThrows) {
    for (const bool active : {true, false}) {
        services.memShield.active = active;
        EXPECT_THROW(TRACKED_NEW(Throws)(), std::runtime_error);
        const Texts made = newCalls();
        EXPECT_EQ(made.back().substr(0, made.back().find(" Throws")),
                  active ? "freeAndUnregister" : "freeAndCount");
        EXPECT_EQ(services.memShield.live(), 0u);
    }
}

} // namespace
