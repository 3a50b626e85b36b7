// The contract of the library with the services that call it, held against this service's own.

#include "host/testing/Contract.h"

namespace {

class OwnServices : public analytics_contract::ContractHost {
public:
    void setTunable(const std::string& name, u32 value) override {
        Singleton<Tweaks, Tweaks>::instance()->values[name] = value;
    }
    IParcel* takeParcel() override { return outbox().popParcel(IParcelOutbox::KEL_ANALYTICS); }
    // This service runs in simulated time.
    void passTime(u32 ms) override { m_timer.runUntil(m_timer.getTimestampMs() + ms); }
    ITimer& timer() override { return m_timer; }

private:
    Timer m_timer;
};

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    analytics_contract::testRequired<OwnServices>("OwnServices");
    return RUN_ALL_TESTS();
}
