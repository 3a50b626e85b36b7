#include "benchmarks/Benchmark.h"
#include "benchmarks/Heap.h"
#include "benchmarks/NullSink.h"
#include "common/Analytics/AnalyticsParcel.h"
#include "common/Analytics/AnalyticsParcelSender.h"
#include "common/Analytics/StorageAnalyticsGenerator.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/Singleton.h"
#include "common/infra/TrackedAllocation.h"

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace {

IParcelOutbox& outbox() {
    return *Singleton<IParcelOutbox, ParcelOutbox>::instance();
}

void makeReport(StorageAnalyticsGenerator& generator) {
    AnalyticsParcelSender::sendAnalyticsParcel(generator.finalizeParcel());
    TRACKED_DELETE(static_cast<AnalyticsParcel*>(outbox().popParcel(IParcelOutbox::KEL_ANALYTICS)));
}

// What a report holds, and no more.
struct BareReport {
    std::string eventName;
    std::string category;
    std::string text;
    std::map<std::string, u64> u64Entries;
    std::map<std::string, u32> u32Entries;
};

const std::array<std::string, 6> entryKeys = {"cm1", "cm2", "cm3", "cm4", "cm5", "cm6"};
const std::string durationKey = "cd11";

std::unique_ptr<BareReport> buildBareReport(u32 threshold) {
    auto report = std::make_unique<BareReport>();
    report->eventName = "StoragePeriodicParcel";
    report->category = "storage";
    report->u64Entries[durationKey] = 0;
    report->text.append("[Latency Threshold=").append(std::to_string(threshold)).append("]");
    report->text.append("[eq=").append(std::to_string(threshold)).append("]");
    for (const std::string& key : entryKeys) {
        report->u32Entries[key] = 0;
    }
    return report;
}

template <typename... Values>
void logFmt(ILogSink& sink, fmt::format_string<Values...> format, Values&&... values) {
    std::array<char, 512> buffer;
    const auto written =
        fmt::format_to_n(buffer.data(), buffer.size(), format, std::forward<Values>(values)...);
    sink.write({LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3, {buffer.data(), written.size}});
}

void makeBareReport(ILogSink& sink, u64 timeMs) {
    const auto report = buildBareReport(50'000);
    const void* address = report.get();
    logFmt(sink,
           " periodicAnalyticsParcel={} PeriodicAnalyticsParcel data:kelTimeStamp={}, "
           "parcelName={} , category={} , accountType={} , priority={} , m_startTimeStamp={} , "
           "m_endTimeStamp={} \n",
           address, timeMs, report->eventName, report->category, 1, 0, timeMs, timeMs);
    const auto& counts = report->u32Entries;
    logFmt(sink,
           "{}, Event Label={}, Event Value={}, storageLatency[0]={}, storageLatency[1]={}, "
           "storageLatency[2]={}, storageLatency[3]={}, storageLatency[4]={}, "
           "maxHighStorageLatencyDuration={}\n\n",
           report->eventName, report->text, 0, 0, 0, 0, 0, 0, counts.size());
    logFmt(sink, "sending analytics parcel parcel={} \n", address);
    keep(address);
}

// Most reports: the outbox takes a block more once in a while.
Result countHeapBlocks(StorageAnalyticsGenerator& generator) {
    std::vector<double> blocks;
    for (int i = 0; i < 1000; ++i) {
        const u64 before = heapBlocksTaken();
        makeReport(generator);
        blocks.push_back(static_cast<double>(heapBlocksTaken() - before));
    }
    return {"heap blocks of one report", "", "", spreadOf(blocks).median, {}, {},
            Target::atMost(11)};
}

std::vector<Result> compareReports(const Settings& settings) {
    NullSink sink;
    ILogSink& bareSink = sink;
    ILogSink* previous = LogService::setSink(&sink);
    StorageAnalyticsGenerator generator;
    const auto samples = interleave({{"ours",
                                      [&](u64 times) {
                                          for (u64 i = 0; i < times; ++i) {
                                              makeReport(generator);
                                          }
                                      }},
                                     {"bare containers and fmt",
                                      [&](u64 times) {
                                          for (u64 i = 0; i < times; ++i) {
                                              makeBareReport(bareSink, i);
                                          }
                                      }}},
                                    settings);
    const Result blocks = countHeapBlocks(generator);
    LogService::setSink(previous);
    return {compare("a whole storage report", samples[0], samples[1], Target::atMost(1.8)), blocks};
}

// A queue of parcels as one would write it without asking for more than its order.
class BareOutbox {
public:
    void push(IParcel* parcel) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_parcels.push_back(parcel);
    }

    IParcel* pop() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        IParcel* parcel = m_parcels.front();
        m_parcels.pop_front();
        return parcel;
    }

private:
    std::mutex m_mutex;
    std::deque<IParcel*> m_parcels;
};

std::vector<Result> compareOutboxes(const Settings& settings) {
    AnalyticsParcel parcel;
    ParcelOutbox ownOutbox;
    IParcelOutbox& ours = ownOutbox;
    BareOutbox bare;
    const auto samples =
        interleave({{"ours",
                     [&](u64 times) {
                         for (u64 i = 0; i < times; ++i) {
                             ours.pushParcel(&parcel, IParcelOutbox::KEL_ANALYTICS);
                             keep(ours.popParcel(IParcelOutbox::KEL_ANALYTICS));
                         }
                     }},
                    {"mutex and std::deque",
                     [&](u64 times) {
                         for (u64 i = 0; i < times; ++i) {
                             bare.push(&parcel);
                             keep(bare.pop());
                         }
                     }}},
                   settings);
    return {compare("push and pop of a parcel", samples[0], samples[1], Target::atMost(1.2))};
}

// As large as a parcel, and nothing to construct.
struct ParcelSized {
    ParcelSized() {} // NOLINT(modernize-use-equals-default): that one would clear the bytes
    std::array<std::byte, sizeof(AnalyticsParcel)> bytes;
};

std::vector<Case> allocationsOn(unsigned int threads) {
    return {{"ours",
             [](u64 times) {
                 for (u64 i = 0; i < times; ++i) {
                     auto* object = TRACKED_NEW(ParcelSized)();
                     keep(object);
                     TRACKED_DELETE(object);
                 }
             },
             threads},
            {"malloc and free",
             [](u64 times) {
                 for (u64 i = 0; i < times; ++i) {
                     void* block = std::malloc(sizeof(ParcelSized));
                     keep(block);
                     std::free(block);
                 }
             },
             threads}};
}

std::vector<Result> compareAllocations(const Settings& settings) {
    const auto one = interleave(allocationsOn(1), settings);
    return {compare("tracked allocation and deletion", one[0], one[1], Target::atMost(10))};
}

std::vector<Result> compareAllocationsTogether(const Settings& settings) {
    const auto two = interleave(allocationsOn(2), settings);
    return {compare("tracked allocation, two threads", two[0], two[1], Target::atMost(12))};
}

} // namespace

std::vector<Benchmark> reportBenchmarks() {
    return {{"report", compareReports},
            {"outbox", compareOutboxes},
            {"allocation", compareAllocations},
            {"allocation, two threads", compareAllocationsTogether}};
}
