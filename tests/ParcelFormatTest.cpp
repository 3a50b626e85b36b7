#include "host/forwarding/ParcelFormat.h"

#include "tests/support/Examples.h"
#include "tests/support/Files.h"

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
    AnalyticsParcel parcel = storageReport();
    parcel.setText("[Latency Threshold=5][eq=7]");
    EXPECT_TRUE(holds(formatParcel(parcel, false), "750 ms\n\n"));
    parcel.setText("[Latency Threshold=5][gt=7]");
    EXPECT_TRUE(holds(formatParcel(parcel, false), " 5 us is above the live one, 7 us\n\n"));
}

TEST(ParcelFormatTest, WhatHasNoPlaceIsListed) {
    AnalyticsParcel parcel;
    parcel.setEventName("Other");
    parcel.setCategory("storage");
    parcel.setKelTimeStamp(59'999);
    parcel.setAccount(AnalyticsParcel::QEM);
    parcel.setEventPriority(AnalyticsParcel::High);
    parcel.setValue(3);
    parcel.setText("[Latency Threshold=5][gt=7] "); // a space too much
    parcel.setDetails("details");
    parcel.addEntry("set", "reads").addEntry("cm1", u32{2}).addEntry("cd11", u64{86'400});
    EXPECT_EQ(formatParcel(parcel, false),
              R"(Other  storage  1970-01-01T00:00:59.999Z  period 86400 s
  account QEM, priority High, value 3
  text: [Latency Threshold=5][gt=7] 
  details: details
  set = reads
  cm1 = 2

)");
    for (const char* key : {"cm2", "cm3", "cm4", "cm5", "cm7"}) { // which makes it a storage report
        parcel.addEntry(key, u32{2});
    }
    parcel.addEntry("other", "text").addEntry("u64", ~u64{0}).addEntry("s64", s64{-1});
    parcel.addEntry("d", 0.5).addEntry("i", -2);
    std::string text = formatParcel(parcel, true);
    std::replace(text.begin(), text.end(), '\x1b', '^');
    EXPECT_EQ(text, R"(^[1mOther^[0m  storage  set reads  1970-01-01T00:00:59.999Z  period 86400 s
       latency            bound        I/Os    share
  cm1  fast                               2   20.0 %  ^[32m#####^[0m
  cm2  moderate                           2   20.0 %  ^[36m#####^[0m
  cm3  slow                               2   20.0 %  ^[33m#####^[0m
  cm4  very slow                          2   20.0 %  ^[35m#####^[0m
  cm5  slowest                            2   20.0 %  ^[31m#####^[0m
       all                               10
  high-latency episodes: mean 3 ms
  text: [Latency Threshold=5][gt=7] 
  details: details
  other = text
  cm7 = 2
  u64 = 18446744073709551615
  s64 = -1
  d = 0.500000
  i = -2

)");
}

} // namespace
