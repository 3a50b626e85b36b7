#include "common/Analytics/AnalyticsParcel.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "host/testing/FakeServices.h"
#include "host/testing/LogText.h"
#include "host/testing/ParcelText.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

namespace {

using Parcel = AnalyticsParcel;

struct AnalyticsParcelTest : testing::Test {
    FakeServices services;
    RecordingLog log;
};

TEST_F(AnalyticsParcelTest, StartsWithTheTimersTimeStamp) {
    services.timer.advanceTo(1'700'000'000'123);
    EXPECT_EQ(toText(Parcel()), "/// account=1 priority=0 value=0 time=1700000000123");
}

TEST_F(AnalyticsParcelTest, EachSetterWritesItsOwnField) {
    Parcel parcel;
    parcel.setValue(1);
    parcel.setEventName("name");
    parcel.setCategory("category");
    parcel.setText("text");
    parcel.setDetails("details");
    parcel.setAccount(Parcel::QEM);
    parcel.setEventPriority(Parcel::Critical);
    parcel.setValue(~u32{0} - 1);
    parcel.setKelTimeStamp(~u64{0});
    EXPECT_EQ(toText(parcel), "name/category/text/details account=0 priority=2 value=4294967294 "
                              "time=18446744073709551615");
}

TEST_F(AnalyticsParcelTest, TextHoldsThePairsInCallOrder) {
    Parcel parcel;
    parcel.setText("replaced");
    parcel.addText("a]", "b=c");
    parcel.setText("replaced");
    parcel.addText("", "");
    parcel.addText("a]", "b=c");
    EXPECT_EQ(parcel.getText(), "[a]=b=c][=][a]=b=c]");
}

TEST_F(AnalyticsParcelTest, DoublesAreKeptInFixedNotation) {
    constexpr double lowest = std::numeric_limits<double>::lowest();
    Parcel parcel;
    parcel.addEntry("a", 1e20).addEntry("a", -0.0000004).addEntry("b", lowest);
    parcel.addEntry("c", -std::numeric_limits<double>::infinity());
    const std::string longest = parcel.getDoubleEntries().at("b");
    EXPECT_EQ(std::stod(longest), lowest);
    EXPECT_EQ(toText(parcel),
              toText(Parcel()) + " double:a=-0.000000 double:b=" + longest + " double:c=-inf");
}

TEST_F(AnalyticsParcelTest, TheTypeOfAValueChoosesItsMap) {
    Parcel parcel;
    for (const u32 top : {5U, ~u32{0}}) { // the last one holds
        parcel.addEntry("key", "text" + std::to_string(top)).addEntry("key", top);
        parcel.addEntry("key", u64{top} << 32U).addEntry("key", s64{top} * -10);
        parcel.addEntry("key", 2.0F / 3).addEntry("\xff", Parcel::High).addEntry("B", -7);
    }
    EXPECT_EQ(toText(parcel), toText(Parcel()) +
                                  " string:key=text4294967295 u32:key=4294967295 "
                                  "u64:key=18446744069414584320 long:key=-42949672950 "
                                  "double:key=0.666667 int:B=-7 int:\xff=1");
}

TEST_F(AnalyticsParcelTest, WhatMemoryFailsLeavesNothingBehind) {
    const std::string text(62, 'x'); // more than the usual room, but only with key and brackets
    const std::pair<std::function<void(Parcel&)>, std::string> rows[] = {
        {[&](Parcel& parcel) { parcel.addEntry("k", text); }, " string:k=" + text},
        {[&](Parcel& parcel) { parcel.addText("k", text); }, "//[k=" + text + "]/ "}};
    for (const auto& row : rows) {
        Parcel parcel;
        const auto isUnchanged = [&] { EXPECT_EQ(toText(parcel), toText(Parcel())); };
        EXPECT_GE(failEachAllocation([&] { row.first(parcel); }, isUnchanged), 2);
        EXPECT_NE(toText(parcel).find(row.second), std::string::npos) << toText(parcel);
    }
}

TEST_F(AnalyticsParcelTest, IsLoggedBeforeItIsPushed) {
    const auto send = AnalyticsParcelSender::sendAnalyticsParcel;
    Parcel parcel;
    EXPECT_EQ(send(&parcel), RC_SUCCESS);
    EXPECT_EQ(services.outbox.popParcel(IParcelOutbox::KEL_ANALYTICS), &parcel);
    EXPECT_EQ(services.outbox.pushes().at(0).type, IParcelOutbox::KEL_ANALYTICS);
    services.outbox.refuseNextPush(RC_REACH_LIMIT);
    EXPECT_EQ(send(&parcel), RC_REACH_LIMIT);
    services.outbox.throwAtNextPush();
    EXPECT_THROW(send(nullptr), std::runtime_error);
    std::ostringstream lines;
    for (const void* address : {&parcel, &parcel, static_cast<Parcel*>(nullptr)}) {
        lines << "kel info [static RcStatus AnalyticsParcelSender::sendAnalyticsParcel("
                 "AnalyticsParcel*)] 3: sending analytics parcel parcel="
              << address << " \n";
    }
    EXPECT_EQ(toText(log), lines.str());
}

} // namespace
