#pragma once

#include "host/testing/ContractOutbox.h"
#include "host/testing/ContractServices.h"
#include "host/testing/ContractTimer.h"

#include <gtest/gtest.h>

// The contract between the library and the services of a host, as tests that a host runs over its
// own services. Two suites: what the library relies on, and what the reference services promise
// beyond that. A failure names the promise that is broken.
//
//     struct MyHost : analytics_contract::ContractHost {
//         void setTunable(const std::string& name, u32 value) override {
//             config().set(name, value);
//         }
//         IParcel* takeParcel() override {
//             return outbox().popParcel(IParcelOutbox::KEL_ANALYTICS);
//         }
//     };
//
//     int main(int argc, char** argv) {
//         testing::InitGoogleTest(&argc, argv);
//         analytics_contract::testRequired<MyHost>("MyHost");
//         analytics_contract::testAdvised<MyHost>("MyHost");
//         return RUN_ALL_TESTS();
//     }
//
// Needs the library, GoogleTest and the host's own service headers, and of these no more than the
// library does. In words: docs/host-contract.md.
namespace analytics_contract {

struct RequiredCheck {
    const char* name;
    void (*run)(ContractHost& host);
};

struct AdvisedCheck {
    const char* name;
    Advice advice;
    void (*run)(ContractHost& host);
};

inline const std::vector<RequiredCheck> requiredChecks{
    {"EachArmingIsOneExpiry", eachArmingIsOneExpiry},
    {"NoExpiryComesFromInsideTheArming", noExpiryComesFromInsideTheArming},
    {"TheCookieComesBackUnchanged", theCookieComesBackUnchanged},
    {"NoExpiryComesEarly", noExpiryComesEarly},
    {"ACallbackCanArmTheNextExpiry", aCallbackCanArmTheNextExpiry},
    {"TimeStampsNeverRunBackwards", timeStampsNeverRunBackwards},
    {"TimeStampsCountMilliseconds", timeStampsCountMilliseconds},
    {"EachPushedParcelIsKeptOrFreed", eachPushedParcelIsKeptOrFreed},
    {"BlocksHoldWhatIsWritten", blocksHoldWhatIsWritten},
    {"EachBlockGoesBackEitherWay", eachBlockGoesBackEitherWay},
    {"SplitStrGivesThePiecesInOrder", splitStrGivesThePiecesInOrder},
    {"ContainsFindsAPartAnywhere", containsFindsAPartAnywhere},
    {"AnUnsetTunableIsItsDefault", anUnsetTunableIsItsDefault},
    {"ASetTunableIsItsValue", aSetTunableIsItsValue},
    {"AReadingWritesAllEightCounters", aReadingWritesAllEightCounters}};

inline const std::vector<AdvisedCheck> advisedChecks{
    {"AThrowingCallbackComesAgain", Advice::ThrowingCallbackComesAgain,
     aThrowingCallbackComesAgain},
    {"ExpiriesComeInOrder", Advice::ExpiriesComeInOrder, expiriesComeInOrder},
    {"ParcelsComeOutInOrder", Advice::ParcelsComeOutInOrder, parcelsComeOutInOrder},
    {"PushesMayCoincide", Advice::PushesMayCoincide, pushesMayCoincide},
    {"AllocationsMayCoincide", Advice::AllocationsMayCoincide, allocationsMayCoincide},
    {"AReadingStartsAPeriod", Advice::ReadingStartsPeriod, aReadingStartsAPeriod}};

template <typename Host>
class ContractTest : public testing::Test {
public:
    explicit ContractTest(std::function<void(ContractHost&)> run) : m_run(std::move(run)) {}

    void TestBody() override {
        Host host;
        m_run(host);
    }

private:
    const std::function<void(ContractHost&)> m_run;
};

template <typename Host>
void registerCheck(const std::string& suite, const char* name,
                   const std::function<void(ContractHost&)>& run) {
    testing::RegisterTest(suite.c_str(), name, nullptr, nullptr, __FILE__, __LINE__,
                          [run]() -> ContractTest<Host>* { return new ContractTest<Host>(run); });
}

// Adds the tests "Required/<name>.<check>" to those that RUN_ALL_TESTS() runs. Before that.
template <typename Host>
void testRequired(const std::string& name) {
    for (const RequiredCheck& check : requiredChecks) {
        registerCheck<Host>("Required/" + name, check.name, check.run);
    }
}

// The same with "Advised/<name>.<check>". Skips what the host does not promise.
template <typename Host>
void testAdvised(const std::string& name) {
    for (const AdvisedCheck& check : advisedChecks) {
        registerCheck<Host>("Advised/" + name, check.name, [check](ContractHost& host) {
            if (!host.promises(check.advice)) {
                GTEST_SKIP() << "This host does not promise it.";
            }
            check.run(host);
        });
    }
}

} // namespace analytics_contract
