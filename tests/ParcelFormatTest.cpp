#include "host/forwarding/ParcelFormat.h"

#include "tests/support/Examples.h"
#include "tests/support/Test.h"

namespace {

TEST(ParcelFormatTest, AStorageReportIsATableOfItsOwnFigures) {
    EXPECT_EQ(formatParcel(storageReport(), false),
              R"(StoragePeriodicParcel  storage  2023-11-14T22:13:20.123Z  period 1.98 s
       latency            bound        I/Os    share
  cm1  fast           <= 900 us         120   77.4 %  ####################
  cm2  moderate         <= 5 ms          30   19.4 %  #####
  cm3  slow          <= 20.5 ms           4    2.6 %  #
  cm4  very slow         <= 1 s           1    0.6 %  #
  cm5  slowest            > 1 s           0    0.0 %
       all                              155
       failed                             6
  p50 71 us  p90 500 us  p99 1.235 s  p99.9 34.57 ms  max 4295 s
  high-latency episodes: 5, mean 7 ms, longest 12 ms, sum 750 ms
  threshold of the period 50000 us is below the live one, 60000 us

)");
}

TEST(ParcelFormatTest, TheThresholdIsToldIfItIsNotTheLiveOne) {
    const std::string sum = ", sum 750 ms\n";
    const std::string threshold = sum + "  threshold of the period 5 us is ";
    for (const auto& [text, end] :
         {std::pair(std::string("[lt=7]"), threshold + "below the live one, 7 us\n\n"),
          {"[eq=7]", sum + "\n"},
          {"[gt=7]", threshold + "above the live one, 7 us\n\n"},
          {"[gt=7] ", sum + "  text: [Latency Threshold=5][gt=7] \n\n"}}) {
        AnalyticsParcel parcel = storageReport();
        parcel.setText("[Latency Threshold=5]" + text);
        const std::string shown = formatParcel(parcel, false);
        EXPECT_EQ(shown.substr(shown.find(sum)), end);
    }
}

AnalyticsParcel otherParcel(const std::string& name, const std::string& text, u64 timeStamp) {
    AnalyticsParcel parcel;
    parcel.setEventName(name);
    parcel.setCategory("storage");
    parcel.setKelTimeStamp(timeStamp);
    parcel.setText(text);
    parcel.setDetails("details");
    return parcel.addEntry("set", "reads");
}

TEST(ParcelFormatTest, ASetIsNamedAndWhatHasNoPlaceIsListed) {
    AnalyticsParcel parcel = otherParcel("StorageReadsParcel", "other text", 0);
    for (const char* key : {"cm1", "cm2", "cm3", "cm4", "cm5", "cm7"}) {
        parcel.addEntry(key, u32{2});
    }
    parcel.addEntry("other", "text").addEntry("u64", ~u64{0}).addEntry("s64", s64{-1});
    parcel.addEntry("d", 0.5).addEntry("i", -2);
    std::string text = formatParcel(parcel, true);
    std::replace(text.begin(), text.end(), '\x1b', '^');
    EXPECT_EQ(text, R"(^[1mStorageReadsParcel^[0m  storage  set reads  1970-01-01T00:00:00.000Z
       latency            bound        I/Os    share
  cm1  fast                               2   20.0 %  ^[32m#####^[0m
  cm2  moderate                           2   20.0 %  ^[36m#####^[0m
  cm3  slow                               2   20.0 %  ^[33m#####^[0m
  cm4  very slow                          2   20.0 %  ^[35m#####^[0m
  cm5  slowest                            2   20.0 %  ^[31m#####^[0m
       all                               10
  high-latency episodes: mean 0 ms
  text: other text
  details: details
  other = text
  cm7 = 2
  u64 = 18446744073709551615
  s64 = -1
  d = 0.500000
  i = -2

)");
}

TEST(ParcelFormatTest, AnyOtherParcelIsItsFields) {
    AnalyticsParcel parcel = otherParcel("HostMaximaParcel", "[eq=4]", 59'999);
    parcel.setAccount(AnalyticsParcel::QEM);
    parcel.setEventPriority(AnalyticsParcel::High);
    parcel.setValue(3);
    parcel.addEntry("cm1", u32{5}).addEntry("cd11", u64{86'400});
    EXPECT_EQ(formatParcel(parcel, false),
              R"(HostMaximaParcel  storage  1970-01-01T00:00:59.999Z  period 86400 s
  account QEM, priority High, value 3
  text: [eq=4]
  details: details
  set = reads
  cm1 = 5

)");
}

} // namespace
