#include "common/Analytics/AnalyticsParcel.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "host/testing/FakeServices.h"
#include "host/testing/LogText.h"
#include "host/testing/ParcelText.h"
#include "tests/support/FailingMemory.h"

#include <gtest/gtest.h>

#include <limits>
#include <new>

namespace {

using Parcel = AnalyticsParcel;

struct AnalyticsParcelTest : testing::Test {
    FakeServices services;
};

TEST_F(AnalyticsParcelTest, StartsWithTheTimersTimeStampAndEachSetterWritesItsOwnField) {
    services.timer.advanceTo(1'700'000'000'123);
    Parcel parcel;
    services.timer.advance(1);
    EXPECT_EQ(toText(parcel), "/// account=1 priority=0 value=0 time=1700000000123");
    parcel.setEventName("name");
    parcel.setCategory("category");
    parcel.setText("text");
    parcel.setDetails("details");
    parcel.setAccount(Parcel::QEM);
    parcel.setEventPriority(Parcel::Critical);
    parcel.setValue(~u32{0});
    parcel.setKelTimeStamp(~u64{0});
    EXPECT_EQ(toText(parcel), "name/category/text/details account=0 priority=2 value=4294967295 "
                              "time=18446744073709551615");
}

// The text after steps, each of which is addText() of what stands before and behind the first '=',
// or, without one, setText().
std::string textAfter(const std::vector<std::string>& steps) {
    Parcel parcel;
    for (const std::string& step : steps) {
        const std::size_t equals = step.find('=');
        equals == std::string::npos
            ? parcel.setText(step)
            : parcel.addText(step.substr(0, equals), step.substr(equals + 1));
    }
    return parcel.getText();
}

TEST_F(AnalyticsParcelTest, TextHoldsThePairsInCallOrder) {
    EXPECT_EQ(textAfter({"a=1", "b=2", "a=1"}), "[a=1][b=2][a=1]");
    EXPECT_EQ(textAfter({"=", "a]b=c=d"}), "[=][a]b=c=d]");
    EXPECT_EQ(textAfter({"x", ""}), "");
    EXPECT_EQ(textAfter({"k=v", "x"}), "x");
    EXPECT_EQ(textAfter({"y", "k=v", "x", "m=w"}), "[k=v][m=w]");
}

TEST_F(AnalyticsParcelTest, KeepsDoublesAsFixedNotation) {
    using Limits = std::numeric_limits<double>;
    const auto text = [](double value) {
        return Parcel().addEntry("", value).getDoubleEntries().at("");
    };
    EXPECT_EQ(text(-0.0000004), "-0.000000");
    EXPECT_EQ(text(1e20), "100000000000000000000.000000");
    EXPECT_EQ(text(Limits::lowest()).size(), 317u);
    EXPECT_EQ(std::stod(text(Limits::lowest())), Limits::lowest());
    EXPECT_EQ(text(-Limits::infinity()) + text(Limits::quiet_NaN()), "-infnan");
}

TEST_F(AnalyticsParcelTest, TheTypeOfAValueChoosesItsMapWhichIsInByteOrder) {
    Parcel parcel;
    parcel.addEntry("key", std::string("old")).addEntry("key", "new"); // the last one holds
    parcel.addEntry("key", ~u32{0}).addEntry("key", ~u64{0}).addEntry("key", s64{-1});
    parcel.addEntry("key", 2.0f / 3)
        .addEntry("\xff", Parcel::High)
        .addEntry("a", 2)
        .addEntry("B", -7);
    const std::string text = toText(parcel);
    EXPECT_EQ(text.substr(text.find("string")),
              "string:key=new u32:key=4294967295 u64:key=18446744073709551615 long:key=-1 "
              "double:key=0.666667 int:B=-7 int:a=2 int:\xff=1");
}

// Every allocation on the way to an entry fails in turn.
TEST_F(AnalyticsParcelTest, AnEntryThatMemoryFailsIsNotThere) {
    const std::string longText(100, 'x');
    for (const bool isText : {true, false}) {
        Parcel parcel;
        bool added = false;
        for (int attempts = 0; !added; ++attempts) {
            EXPECT_EQ(toText(parcel), toText(Parcel())) << attempts;
            try {
                allocationsLeft = attempts;
                isText ? parcel.addEntry("key", longText) : parcel.addEntry("key", 1e99);
                added = true;
            } catch (const std::bad_alloc&) { // tried again, with one more
            }
            allocationsLeft = unlimitedAllocations;
        }
    }
}

TEST_F(AnalyticsParcelTest, IsLoggedThenPushedAndLeftAloneByAPushThatFails) {
    const auto send = AnalyticsParcelSender::sendAnalyticsParcel;
    RecordingLog log;
    Parcel parcel;
    EXPECT_EQ(send(&parcel), RC_SUCCESS);
    EXPECT_EQ(services.outbox.popParcel(IParcelOutbox::KEL_ANALYTICS), &parcel);
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
    EXPECT_TRUE(services.memShield.calls.empty());
    // Without an outbox there will be one, of the default bound.
    Singleton<IParcelOutbox, ParcelOutbox>::setInstance(nullptr);
    EXPECT_EQ(send(&parcel), RC_SUCCESS);
    const std::unique_ptr<IParcelOutbox> created(
        Singleton<IParcelOutbox, ParcelOutbox>::setInstance(&services.outbox));
    EXPECT_EQ(created->getMaxSize(), 5000u);
    EXPECT_EQ(created->popParcel(IParcelOutbox::KEL_ANALYTICS), &parcel);
}

} // namespace
