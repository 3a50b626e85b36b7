#include "common/Analytics/AnalyticsParcel.h"

#include "common/Analytics/AnalyticsParcelSender.h"
#include "tests/support/FakeServices.h"
#include "tests/support/LogText.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

class AnalyticsParcelTest : public testing::Test {
protected:
    FakeServices services;
};

TEST_F(AnalyticsParcelTest, StartsEmptyWithTheTimersTimeStamp) {
    services.timer.advanceTo(1'700'000'000'123);
    const AnalyticsParcel parcel;
    services.timer.advance(1);
    EXPECT_EQ(parcel.getEventName() + parcel.getCategory() + parcel.getText() + parcel.getDetails(),
              "");
    EXPECT_EQ(parcel.getAccount(), AnalyticsParcel::KEL);
    EXPECT_EQ(parcel.getEventPriority(), AnalyticsParcel::Normal);
    EXPECT_EQ(parcel.getValue(), 0u);
    EXPECT_EQ(parcel.getKelTimeStamp(), 1'700'000'000'123u);
    EXPECT_EQ(parcel.getStringEntries().size() + parcel.getU32Entries().size() +
                  parcel.getU64Entries().size() + parcel.getLongEntries().size() +
                  parcel.getDoubleEntries().size() + parcel.getIntEntries().size(),
              0u);
}

TEST_F(AnalyticsParcelTest, EachSetterWritesItsOwnField) {
    AnalyticsParcel parcel;
    parcel.setEventName("name");
    parcel.setCategory("category");
    parcel.setAccount(AnalyticsParcel::QEM);
    parcel.setEventPriority(AnalyticsParcel::Critical);
    parcel.setValue(4294967295u);
    parcel.setText("text");
    parcel.setDetails("details");
    parcel.setKelTimeStamp(~u64{0});
    EXPECT_EQ(parcel.getEventName(), "name");
    EXPECT_EQ(parcel.getCategory(), "category");
    EXPECT_EQ(parcel.getAccount(), AnalyticsParcel::QEM);
    EXPECT_EQ(parcel.getEventPriority(), AnalyticsParcel::Critical);
    EXPECT_EQ(parcel.getValue(), 4294967295u);
    EXPECT_EQ(parcel.getText(), "text");
    EXPECT_EQ(parcel.getDetails(), "details");
    EXPECT_EQ(parcel.getKelTimeStamp(), ~u64{0});
}

TEST_F(AnalyticsParcelTest, TextHoldsThePairsInCallOrder) {
    // Each step is addText() of what stands before and behind the first '=', or, with a '!' in
    // front, setText().
    const struct {
        Texts steps;
        std::string text;
    } cases[] = {
        {{"a=1", "b=2"}, "[a=1][b=2]"},
        {{"a=1", "a=1"}, "[a=1][a=1]"},
        {{"="}, "[=]"},
        {{"a]b=c=d"}, "[a]b=c=d]"},
        {{"!x", "k=v"}, "[k=v]"},
        {{"k=v", "!x"}, "x"},
        {{"!x", "!"}, ""},
        {{"k=v", "!x", "m=w"}, "[k=v][m=w]"},
    };
    for (const auto& [steps, text] : cases) {
        AnalyticsParcel parcel;
        for (const std::string& step : steps) {
            const std::size_t equals = step.find('=');
            if (step[0] == '!') {
                parcel.setText(step.substr(1));
            } else {
                parcel.addText(step.substr(0, equals), step.substr(equals + 1));
            }
        }
        EXPECT_EQ(parcel.getText(), text);
    }
}

TEST_F(AnalyticsParcelTest, KeepsDoublesAsFixedNotation) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const std::vector<std::pair<double, std::string>> cases = {
        {2.5, "2.500000"},
        {1.0 / 3, "0.333333"},
        {-0.0000004, "-0.000000"},
        {1e20, "100000000000000000000.000000"},
        {-std::numeric_limits<double>::max(),
         "-179769313486231570814527423731704356798070567525844996598917476803157260780028538760589"
         "5586327668781715404589535143824642343213268894641827684675467035375169860499105765512820"
         "7624549009038932894407586850845513394230458323690322294816580855933212334827479782620414"
         "4723168738177180919299881250404026184124858368.000000"},
        {infinity, "inf"},
        {-infinity, "-inf"},
        {nan, "nan"},
        {-nan, "-nan"},
    };
    for (const auto& [value, text] : cases) {
        AnalyticsParcel parcel;
        parcel.addEntry("key", value);
        EXPECT_EQ(parcel.getDoubleEntries().at("key"), text);
    }
}

TEST_F(AnalyticsParcelTest, TheTypeOfAValueChoosesItsMap) {
    AnalyticsParcel parcel;
    parcel.addEntry("key", std::string("old")).addEntry("key", "new"); // the last one holds
    parcel.addEntry("key", 4294967295u).addEntry("key", ~u64{0}).addEntry("key", s64{-1});
    parcel.addEntry("key", 0.5f).addEntry("key", -7);
    EXPECT_EQ(parcel.getStringEntries(), (std::map<std::string, std::string>{{"key", "new"}}));
    EXPECT_EQ(parcel.getU32Entries(), (std::map<std::string, u32>{{"key", 4294967295u}}));
    EXPECT_EQ(parcel.getU64Entries(), (std::map<std::string, u64>{{"key", ~u64{0}}}));
    EXPECT_EQ(parcel.getLongEntries(), (std::map<std::string, s64>{{"key", -1}}));
    EXPECT_EQ(parcel.getDoubleEntries(), (std::map<std::string, std::string>{{"key", "0.500000"}}));
    EXPECT_EQ(parcel.getIntEntries(), (std::map<std::string, int>{{"key", -7}}));
}

TEST_F(AnalyticsParcelTest, EntriesComeInByteOrderOfTheirKeys) {
    AnalyticsParcel parcel;
    for (const char* key : {"b", "\xff", "ab", "a", "B", ""}) {
        parcel.addEntry(key, 1);
    }
    Texts keys;
    for (const auto& [key, value] : parcel.getIntEntries()) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys, (Texts{"", "B", "a", "ab", "b", "\xff"}));
}

class AnalyticsParcelSenderTest : public AnalyticsParcelTest {
protected:
    RecordingLog log;
    AnalyticsParcel parcel;

    static std::string lineFor(const std::string& address) {
        return "kel info [static RcStatus "
               "AnalyticsParcelSender::sendAnalyticsParcel(AnalyticsParcel*)] 3: "
               "sending analytics parcel parcel=" +
               address + " \n";
    }
    std::string address() const {
        std::ostringstream text;
        text << static_cast<const void*>(&parcel);
        return text.str();
    }
};

TEST_F(AnalyticsParcelSenderTest, PushesUnderKelAnalytics) {
    EXPECT_EQ(AnalyticsParcelSender::sendAnalyticsParcel(&parcel), RC_SUCCESS);
    ASSERT_EQ(services.outbox.pushes().size(), 1u);
    EXPECT_EQ(services.outbox.popParcel(IParcelOutbox::KEL_ANALYTICS), &parcel);
    EXPECT_EQ(services.outbox.pushes()[0].type, 0u);
    EXPECT_EQ(toTexts(log), Texts{lineFor(address())});
}

TEST_F(AnalyticsParcelSenderTest, LogsBeforeAPushThatFailsAndLeavesTheParcelAlone) {
    parcel.setEventName("kept");
    services.outbox.refuseNextPush(RC_REACH_LIMIT);
    EXPECT_EQ(AnalyticsParcelSender::sendAnalyticsParcel(&parcel), RC_REACH_LIMIT);
    services.outbox.throwAtNextPush();
    EXPECT_THROW(AnalyticsParcelSender::sendAnalyticsParcel(&parcel), std::runtime_error);
    services.outbox.refuseNextPush(RC_BAD_PARAMETERS);
    EXPECT_EQ(AnalyticsParcelSender::sendAnalyticsParcel(nullptr), RC_BAD_PARAMETERS);

    EXPECT_EQ(toTexts(log), (Texts{lineFor(address()), lineFor(address()), lineFor("0")}));
    EXPECT_EQ(services.outbox.pushes().size(), 3u);
    EXPECT_EQ(parcel.getEventName(), "kept");
    EXPECT_EQ(services.memShield.calls, Texts{});
}

TEST_F(AnalyticsParcelSenderTest, CreatesAnOutboxOf5000ParcelsWhenThereIsNone) {
    using Outboxes = Singleton<IParcelOutbox, ParcelOutbox>;
    Outboxes::setInstance(nullptr);
    EXPECT_EQ(AnalyticsParcelSender::sendAnalyticsParcel(&parcel), RC_SUCCESS);
    IParcelOutbox* created = Outboxes::setInstance(&services.outbox);
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(created->getMaxSize(), 5000u);
    EXPECT_EQ(created->popParcel(IParcelOutbox::KEL_ANALYTICS), &parcel);
    delete created;
}

} // namespace
