#include "host/forwarding/RecordWriter.h"

#include "host/forwarding/Identity.h"
#include "tests/support/Files.h"

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

AnalyticsParcel fullParcel() {
    AnalyticsParcel parcel;
    parcel.setEventName("\"quoted\" \xff");
    parcel.setCategory("category");
    parcel.setAccount(AnalyticsParcel::QEM);
    parcel.setEventPriority(AnalyticsParcel::Critical);
    parcel.setValue(~u32{0});
    parcel.setText("text");
    parcel.setDetails("line\nline");
    parcel.setKelTimeStamp(1'700'000'000'123);
    parcel.addEntry("s", std::string("text")).addEntry("u32", u32{1}).addEntry("u64", ~u64{0});
    parcel.addEntry("s64", std::numeric_limits<s64>::min()).addEntry("i", -2).addEntry("j", 0);
    parcel.addEntry("d", 0.5).addEntry("nan", std::nan(""));
    return parcel.addEntry("inf", -std::numeric_limits<double>::infinity());
}

TEST(RecordWriterTest, ALineHoldsWhatTheGettersGiveAndWhereAndWhenItWasMade) {
    RecordWriter writer({"ho\"st", "b00t"}, "serv\tice");
    EXPECT_EQ(writer.line(fullParcel(), 7, 1'800'000'000'045),
              R"({"schema":1,"host":"ho\"st","boot":"b00t","sequence":7,"service":"serv\tice",)"
              R"("forwardedAt":"2027-01-15T08:00:00.045Z",)"
              "\"eventName\":\"\\\"quoted\\\" \xef\xbf\xbd\",\"category\":\"category\","
              R"("account":"QEM","priority":"Critical","value":4294967295,"text":"text",)"
              R"("details":"line\nline","timeStampMs":1700000000123,)"
              R"("timeStamp":"2023-11-14T22:13:20.123Z","stringEntries":{"s":"text"},)"
              R"("u32Entries":{"u32":1},"u64Entries":{"u64":18446744073709551615},)"
              R"("longEntries":{"s64":-9223372036854775808},"doubleEntries":)"
              R"({"d":"0.500000","inf":"-inf","nan":"nan"},)"
              R"("intEntries":{"i":-2,"j":0}})"
              "\n");
    for (const auto& [ms, second] :
         {std::pair(1U, "00.001"), {1'000U, "01.000"}, {999U, "00.999"}}) {
        const std::string line = writer.line(AnalyticsParcel(), 1, ms);
        EXPECT_TRUE(holds(
            line, std::string("\"1970-01-01T00:00:") + second +
                      R"(Z","eventName":"","category":"","account":"KEL","priority":"Normal")"));
    }
}

// An established writer says what the text of any bytes is.
TEST(RecordWriterTest, AnyBytesBecomeTheTextThatAnotherWriterMakesOfThem) {
    RecordWriter writer({"host", "boot"}, "service");
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same bytes each time
    const std::string bytes = "a\"\\\b\f\n\r\t\x01\x1f\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0\xc1\xc2\xdf"
                              "\xe0\xe1\xec\xed\xee\xef\xf0\xf1\xf3\xf4\xf5\xff";
    for (int i = 0; i < 5'000; ++i) {
        std::string text;
        for (u64 length = random() % 6; length > 0; --length) {
            text += bytes[random() % bytes.size()];
        }
        AnalyticsParcel parcel;
        parcel.setText(text);
        const std::string quoted = json(text).dump(-1, ' ', false, json::error_handler_t::replace);
        ASSERT_TRUE(holds(writer.line(parcel, 1, 0), "\"text\":" + quoted + ","));
    }
}

TEST(RecordWriterTest, RecordsKeepTheSchemaAndTheDocumentItsTable) {
    const TempFolder folder;
    RecordWriter writer({"host", "boot"}, "service");
    const auto complaints = [&](const std::string& lines) {
        const std::string command = "python3 " VALIDATE " " DOCS "/records.schema.json <" +
                                    folder.write("lines", lines) + " 2>" + (folder / "errors");
        const int status = std::system(command.c_str());
        return std::to_string(status) + " " + folder.read("errors");
    };
    EXPECT_EQ(complaints(writer.line(AnalyticsParcel(), 1, 0) + writer.line(fullParcel(), 2, 0)),
              "0 ");
    EXPECT_EQ(complaints(writer.line(AnalyticsParcel(), 0, 0)),
              "256 line 1: $.sequence: 0 is less than the minimum of 1\n");
    EXPECT_EQ(recordSchema(), readFile(DOCS "/records.schema.json"));
    EXPECT_TRUE(holds(readFile(DOCS "/records.md"), recordFieldRows()));
}

TEST(IdentityTest, AMachineHasItsIdAndEachBootIsAnother) {
    const TempFolder folder;
    const std::string id = "2023456789abcdef0123456789abcdef\n";
    EXPECT_EQ(deriveHostId(folder.write("machine", id)), "042909ad23f9d71b");
    const std::string ofName = deriveHostId(folder / "none");
    EXPECT_EQ(deriveHostId(folder.write("machine", "")), ofName);
    EXPECT_NE(ofName, "563820154b217892") << "of no text";
    EXPECT_EQ(makeOrigin("given").host + makeOrigin("").host, "given" + deriveHostId());
    const std::string boot = makeOrigin("given").boot;
    EXPECT_EQ(boot.size(), 16U);
    EXPECT_NE(makeOrigin("given").boot, boot);
}

} // namespace
