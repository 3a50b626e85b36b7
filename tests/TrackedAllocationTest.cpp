#include "common/infra/TrackedAllocation.h"

#include "tests/support/LibraryTest.h"
#include "tests/support/Test.h"

namespace {

struct Base {
    virtual ~Base() = default;
};
struct OtherBase {
    virtual ~OtherBase() = default;
};
// Its OtherBase lies behind the beginning of its block. Its operator new is not for tracked blocks.
struct Derived : Base, OtherBase {
    Derived(std::vector<std::string>& calls, std::string text)
        : m_calls(calls), m_text(std::move(text)) {}
    ~Derived() override { m_calls.push_back("~" + m_text); }
    static void* operator new(std::size_t /*size*/, void* block) {
        return ADD_FAILURE() << "the class's own", block;
    }
    std::vector<std::string>& m_calls;
    std::string m_text;
};
struct Throws {
    Throws() { throw std::runtime_error("not today"); }
};

// Tracking on, the tracker hears of type, file and line; off, releases are only counted.
TEST_F(LibraryTest, TrackedAllocationTellsTheTrackerOfEveryBlock) {
    for (const bool active : {true, false}) {
        services.memShield.active = active;
        services.memShield.calls.clear();
        std::string text = "moved";
        OtherBase* held = TRACKED_NEW(Derived)(services.memShield.calls, std::move(text));
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
                             at(4) + "~moved\n" + released("Derived", at(3)) +
                             "allocAndRegister 1 0 Throws" + at(2) + released("Throws", at(2)));
        EXPECT_TRUE(text.empty()); // NOLINT(bugprone-use-after-move)
    }
}

} // namespace
