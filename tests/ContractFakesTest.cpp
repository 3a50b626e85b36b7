// The contract kit over the fakes, which a host's tests have in place of its services.

#include "host/testing/Contract.h"
#include "host/testing/FakeAio.h"
#include "host/testing/FakeServices.h"
#include "host/testing/FakeTweaks.h"

using namespace analytics_contract;

namespace {

class FakeHost : public ContractHost {
public:
    FakeHost() { storageCounters() = {50, {1, 2, 3, 4, 5}, 6, 7}; }
    void setTunable(const std::string& name, u32 value) override { uintTweaks()[name] = value; }
    IParcel* takeParcel() override {
        return services.outbox.popParcel(IParcelOutbox::KEL_ANALYTICS);
    }
    void passTime(u32 ms) override { services.timer.advance(ms); }
    std::chrono::milliseconds limit() override { return std::chrono::milliseconds(1); }
    u64 outboxBound() override { return 50; }
    void setTracking(bool on) override { services.memShield.active = on; }
    std::optional<u64> liveBlocks() override { return services.memShield.live(); }
    bool promises(Advice advice) override {
        return advice == Advice::ExpiriesComeInOrder || advice == Advice::ParcelsComeOutInOrder;
    }

    FakeServices services;
};

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testRequired<FakeHost>("Fakes");
    testAdvised<FakeHost>("Fakes");
    return RUN_ALL_TESTS();
}
