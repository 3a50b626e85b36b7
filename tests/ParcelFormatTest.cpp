#include "host/forwarding/ParcelFormat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

// A storage report with a figure of its own in every entry.
AnalyticsParcel storageReport() {
    AnalyticsParcel parcel;
    parcel.setEventName("StoragePeriodicParcel");
    parcel.setCategory("storage");
    parcel.setKelTimeStamp(1'700'000'000'123);
    parcel.setText("[Latency Threshold=50000][lt=60000]");
    parcel.setValue(7);
    parcel.addEntry("cm1", u32{120}).addEntry("cm2", u32{30}).addEntry("cm3", u32{4});
    parcel.addEntry("cm4", u32{1}).addEntry("cm5", u32{0}).addEntry("cm6", u32{12});
    parcel.addEntry("cd11", u64{1});
    return parcel;
}

// The same with what its host adds.
AnalyticsParcel fullReport() {
    AnalyticsParcel parcel = storageReport();
    parcel.addEntry("boundFastUs", u32{900}).addEntry("boundModerateUs", u32{5'000});
    parcel.addEntry("boundSlowUs", u32{20'500}).addEntry("boundVerySlowUs", u32{1'000'000});
    parcel.addEntry("p50Us", u32{71}).addEntry("p90Us", u32{999}).addEntry("p99Us", u32{1'234'567});
    parcel.addEntry("p999Us", u32{34'567}).addEntry("maxUs", ~u32{0}).addEntry("episodes", u32{5});
    parcel.addEntry("failedIos", u64{6}).addEntry("periodMs", u64{1'980});
    return parcel.addEntry("episodeSumMs", u64{35});
}

TEST(ParcelFormatTest, AStorageReportIsATableOfItsOwnFigures) {
    EXPECT_EQ(toText(fullReport(), false),
              R"(StoragePeriodicParcel  storage  2023-11-14T22:13:20.123Z  period 1.98 s
       latency            bound        I/Os    share
  cm1  fast           <= 900 us         120   77.4 %  ####################
  cm2  moderate         <= 5 ms          30   19.4 %  #####
  cm3  slow          <= 20.5 ms           4    2.6 %  #
  cm4  very slow         <= 1 s           1    0.6 %  #
  cm5  slowest            > 1 s           0    0.0 %
       all                              155
       failed                             6
  p50 71 us  p90 999 us  p99 1.235 s  p99.9 34.57 ms  max 4295 s
  high-latency episodes: 5, mean 7 ms, longest 12 ms, sum 35 ms
  threshold of the period 50000 us is below the live one, 60000 us

)");
}

TEST(ParcelFormatTest, WhatAStorageReportLacksIsLeftOut) {
    EXPECT_EQ(toText(storageReport(), false),
              R"(StoragePeriodicParcel  storage  2023-11-14T22:13:20.123Z  period 1 s
       latency            bound        I/Os    share
  cm1  fast                             120   77.4 %  ####################
  cm2  moderate                          30   19.4 %  #####
  cm3  slow                               4    2.6 %  #
  cm4  very slow                          1    0.6 %  #
  cm5  slowest                            0    0.0 %
       all                              155
  high-latency episodes: mean 7 ms, longest 12 ms
  threshold of the period 50000 us is below the live one, 60000 us

)");
}

TEST(ParcelFormatTest, TheThresholdIsToldIfItIsNotTheLiveOne) {
    for (const auto& [key, words] : {std::pair("lt", "5 us is below the live one, 7 us\n"),
                                     {"eq", nullptr},
                                     {"gt", "5 us is above the live one, 7 us\n"}}) {
        AnalyticsParcel parcel = storageReport();
        parcel.setText("[Latency Threshold=5][" + std::string(key) + "=7]");
        const std::string text = toText(parcel, false);
        EXPECT_EQ(text.find("threshold") != std::string::npos, words != nullptr) << text;
        EXPECT_TRUE(words == nullptr || text.find(words) != std::string::npos) << text;
    }
}

TEST(ParcelFormatTest, ASetIsNamedAndWhatHasNoPlaceIsListed) {
    AnalyticsParcel parcel;
    parcel.setEventName("StorageReadsParcel");
    parcel.setCategory("storage");
    parcel.setKelTimeStamp(0);
    parcel.setText("other text");
    parcel.setDetails("details");
    for (const char* key : {"cm1", "cm2", "cm3", "cm4", "cm5", "cm7"}) {
        parcel.addEntry(key, u32{2});
    }
    parcel.addEntry("set", "reads").addEntry("other", "text").addEntry("u64", ~u64{0});
    parcel.addEntry("s64", s64{-1}).addEntry("d", 0.5).addEntry("i", -2);
    std::string text = toText(parcel, true);
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
    AnalyticsParcel parcel;
    parcel.setEventName("HostMaximaParcel");
    parcel.setCategory("storage");
    parcel.setAccount(AnalyticsParcel::QEM);
    parcel.setEventPriority(AnalyticsParcel::High);
    parcel.setKelTimeStamp(59'999);
    parcel.setValue(3);
    parcel.setText("[eq=4]");
    parcel.setDetails("details");
    parcel.addEntry("set", "reads").addEntry("cm1", u32{5}).addEntry("cd11", u64{86'400});
    EXPECT_EQ(toText(parcel, false),
              R"(HostMaximaParcel  storage  1970-01-01T00:00:59.999Z  period 86400 s
  account QEM, priority High, value 3
  text: [eq=4]
  details: details
  set = reads
  cm1 = 5

)");
}

} // namespace
