#include "common/infra/TrackedAllocation.h"

#include "tests/support/LibraryTest.h"

namespace {

using Calls = std::vector<std::string>;

struct Base {
    virtual ~Base() = default;
};
struct OtherBase {
    virtual ~OtherBase() = default;
};
// Its OtherBase lies behind the beginning of its block. Its operator new is not for tracked blocks.
struct Derived : Base, OtherBase {
    Derived(Calls& calls, std::string text) : m_calls(calls), m_text(std::move(text)) {}
    ~Derived() override { m_calls.push_back("~" + m_text); }
    static void* operator new(std::size_t /*size*/, void* block) {
        return ADD_FAILURE() << "the class's own", block;
    }
    Calls& m_calls;
    std::string m_text;
};
struct Throws {
    Throws() { throw std::runtime_error("not today"); }
};

// Tracking on, the tracker hears of type, file and line; off, releases are only counted.
TEST_F(LibraryTest, TrackedAllocationTellsTheTrackerOfEveryBlock) {
    Calls& calls = services.memShield.calls;
    std::string text = "moved";
    OtherBase* held = TRACKED_NEW(Derived)(calls, std::move(text));
    TRACKED_DELETE(held);
    EXPECT_THROW(TRACKED_NEW(Throws)(), std::runtime_error);
    services.memShield.active = false;
    TRACKED_DELETE(TRACKED_NEW(Base)());
    const auto at = [line = __LINE__](int before) {
        return " TrackedAllocationTest.cpp:" + std::to_string(line - before);
    };
    const std::string derived = std::to_string(sizeof(Derived));
    const std::string base = std::to_string(sizeof(Base));
    EXPECT_EQ(calls, (Calls{"allocAndRegister " + derived + " 0 Derived" + at(5), "~moved",
                            "isMemshieldActive", "verifyPtr Derived" + at(4),
                            "freeAndUnregister Derived" + at(4),
                            "allocAndRegister 1 0 Throws" + at(3), "isMemshieldActive",
                            "verifyPtr Throws" + at(3), "freeAndUnregister Throws" + at(3),
                            "allocAndRegister " + base + " 0 Base" + at(1), "isMemshieldActive",
                            "freeAndCount Base"}));
    EXPECT_TRUE(text.empty()); // NOLINT(bugprone-use-after-move)
}

} // namespace
