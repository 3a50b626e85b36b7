// The contract kit over the reference host's services.

#include "host/testing/Contract.h"
#include "host/services/HostServices.h"

struct MyHost : analytics_contract::ContractHost {
    void setTunable(const std::string& name, u32 value) override {
        Tweaks::instance()->set(name, std::to_string(value));
    }
    IParcel* takeParcel() override { return outbox().popParcel(IParcelOutbox::KEL_ANALYTICS); }
    void countIo() override { Singleton<AIO, AIO>::instance()->countIo(1'000); }
};

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    analytics_contract::testRequired<MyHost>("MyHost");
    analytics_contract::testAdvised<MyHost>("MyHost");
    return RUN_ALL_TESTS();
}
