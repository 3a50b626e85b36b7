#include "common/infra/TrackedAllocation.h"

#include "host/testing/FakeServices.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

struct Base {
    virtual ~Base() = default;
    int unused = 0;
};
struct OtherBase {
    virtual ~OtherBase() = default;
};
// Its OtherBase lies behind the beginning of its block.
struct Derived : Base, OtherBase {
    explicit Derived(int& destroyed) : m_destroyed(destroyed) {}
    ~Derived() override { ++m_destroyed; }
    int& m_destroyed;
};
struct Throws {
    Throws() { throw std::runtime_error("not today"); }
};

// Tracking on, the tracker hears of type, file and line; off, releases are only counted.
TEST(TrackedAllocation, TellsTheTrackerOfEveryBlockAndGivesItBackByItsBeginning) {
    FakeServices services;
    int destroyed = 0;
    for (const bool active : {true, false}) {
        services.memShield.active = active;
        services.memShield.calls.clear();
        OtherBase* held = TRACKED_NEW(Derived)(destroyed);
        ASSERT_NE(static_cast<void*>(held), dynamic_cast<void*>(held));
        TRACKED_DELETE(held);
        EXPECT_THROW(TRACKED_NEW(Throws)(), std::runtime_error);

        const auto at = [line = __LINE__](int before) {
            return " TrackedAllocationTest.cpp:" + std::to_string(line - before) + "\n";
        };
        const auto released = [&](const std::string& type, const std::string& place) {
            return "isMemshieldActive\n" +
                   (active ? "verifyPtr " + type + place + "freeAndUnregister " + type + place
                           : "freeAndCount " + type + "\n");
        };
        std::string calls;
        for (const std::string& call : services.memShield.calls) {
            calls += call + "\n";
        }
        EXPECT_EQ(calls, "allocAndRegister " + std::to_string(sizeof(Derived)) + " 0 Derived" +
                             at(5) + released("Derived", at(3)) + "allocAndRegister 1 0 Throws" +
                             at(2) + released("Throws", at(2)));
    }
    EXPECT_EQ(services.memShield.live(), 0u);
    EXPECT_EQ(destroyed, 2);
}

} // namespace
