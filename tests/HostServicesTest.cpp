#include "host/services/HostServices.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "host/testing/FakeServices.h"

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

namespace {

TEST(HostServices, RefuseServicesOfAnotherKind) {
    const FakeServices services;
    EXPECT_THROW(hostTimer(), std::bad_cast);
    EXPECT_THROW(hostOutbox(), std::bad_cast);
    EXPECT_THROW(takeParcel(), std::bad_cast);
}

TEST(HostServices, TakeInOrderWhatIsHeldWhenTheWaitingHasEnded) {
    ParcelOutbox outbox;
    const Installed<IParcelOutbox, ParcelOutbox> installed(outbox);
    for (const char* name : {"first", "second"}) {
        auto* parcel = TRACKED_NEW(AnalyticsParcel)();
        parcel->setEventName(name);
        AnalyticsParcelSender::sendAnalyticsParcel(parcel);
    }
    hostOutbox().stopWaiting();
    std::vector<std::string> taken;
    while (const auto parcel = takeParcel()) {
        taken.push_back(parcel->getEventName());
    }
    EXPECT_EQ(taken, (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(outbox.isEmpty());
}

} // namespace
