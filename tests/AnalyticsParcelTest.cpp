#include "common/Analytics/AnalyticsParcel.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "tests/support/LibraryTest.h"

namespace {

using Parcel = AnalyticsParcel;

constexpr double lowest = std::numeric_limits<double>::lowest();

using AnalyticsParcelTest = LibraryTest;

TEST_F(AnalyticsParcelTest, HoldsWhatItWasGivenLast) {
    services.timer.advanceTo(1'700'000'000'123);
    Parcel parcel;
    EXPECT_EQ(toText(parcel), "/// account=1 priority=0 value=0 time=1700000000123");
    for (const u32 top : {5U, ~u32{0}}) {
        const std::string number = std::to_string(top);
        parcel.setValue(top - 1);
        parcel.setEventName("name" + number);
        parcel.setCategory("category" + number);
        parcel.setText("replaced");
        parcel.addText("a]", number); // all pairs, in call order
        parcel.addText("", "b=c");
        parcel.setDetails("details" + number);
        parcel.setAccount(Parcel::QEM);
        parcel.setEventPriority(Parcel::Critical);
        parcel.setKelTimeStamp(u64{top} << 32U);
        // The type of a value chooses its map.
        parcel.addEntry("key", "text" + number).addEntry("key", top);
        parcel.addEntry("key", u64{top} << 32U).addEntry("key", s64{top} * -10);
        parcel.addEntry("key", -0.0000004 * top).addEntry("\xff", Parcel::High).addEntry("B", -7);
        parcel.addEntry("\xff", lowest).addEntry("A", IParcelOutbox::KEL_ANALYTICS);
    }
    EXPECT_EQ(toText(parcel),
              "name4294967295/category4294967295/[a]=5][=b=c][a]=4294967295][=b=c]/"
              "details4294967295 account=0 priority=2 value=4294967294 time=18446744069414584320 "
              "string:key=text4294967295 u32:key=4294967295 u64:key=18446744069414584320 "
              "long:key=-42949672950 double:key=-1717.986918 double:\xff=" +
                  std::to_string(lowest) + " int:A=0 int:B=-7 int:\xff=1");
}

TEST_F(AnalyticsParcelTest, IsUnchangedWhenMemoryFails) {
    const std::string text(62, 'x'); // more than the usual room, but only with key and brackets
    const std::function<void(Parcel&)> changes[] = {
        [&](Parcel& parcel) { parcel.addEntry("k", text); },
        [&](Parcel& parcel) { parcel.addEntry("k", lowest); },
        [&](Parcel& parcel) { parcel.addText("k", text); }};
    for (const auto& change : changes) {
        Parcel parcel, other;
        const auto isUnchanged = [&] { EXPECT_EQ(toText(parcel), toText(Parcel())); };
        EXPECT_GE(failEachAllocation([&] { change(parcel); }, isUnchanged), 2);
        change(other);
        EXPECT_EQ(toText(parcel), toText(other));
    }
}

TEST_F(AnalyticsParcelTest, IsLoggedBeforeItIsPushed) {
    const auto send = AnalyticsParcelSender::sendAnalyticsParcel;
    Parcel parcel;
    services.outbox.refuseNextPush(RC_REACH_LIMIT);
    EXPECT_EQ(send(&parcel), RC_REACH_LIMIT);
    EXPECT_EQ(services.outbox.pushes().at(0).parcel, &parcel);
    EXPECT_EQ(services.outbox.pushes().at(0).type, IParcelOutbox::KEL_ANALYTICS);
    services.outbox.throwAtNextPush();
    EXPECT_THROW(send(nullptr), std::runtime_error);
    EXPECT_TRUE(services.outbox.isEmpty());
    EXPECT_EQ(send(nullptr), RC_SUCCESS);
    EXPECT_EQ(services.outbox.size(), 1U);
    EXPECT_EQ("\n" + withName(toBriefText(log), &parcel, "PARCEL"), R"(
kel info sendAnalyticsParcel "sending analytics parcel parcel=PARCEL \n"
kel info sendAnalyticsParcel "sending analytics parcel parcel=0 \n"
kel info sendAnalyticsParcel "sending analytics parcel parcel=0 \n"
)");
}

} // namespace
