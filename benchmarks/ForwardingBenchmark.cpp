#include "benchmarks/Benchmark.h"
#include "benchmarks/ScratchFolder.h"
#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/IParcelOutbox.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/Forwarder.h"
#include "host/forwarding/OutputSink.h"
#include "host/forwarding/RecordWriter.h"
#include "host/services/Clock.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace {

constexpr u64 epochMs = 1'700'000'000'000;
const Origin origin{"0123456789abcdef", "fedcba9876543210"};

void fill(AnalyticsParcel& event) {
    event.setEventName("CacheWarmed");
    event.setCategory("cache");
    event.addEntry("device", "nvme0n1").addEntry("ratio", 0.97);
    event.addEntry("bytes", u64{1} << 40U).addEntry("hits", u64{123'456});
    event.addEntry("misses", u64{4'321});
}

void push(ParcelOutbox& outbox) {
    auto* event = TRACKED_NEW(AnalyticsParcel)();
    fill(*event);
    outbox.pushParcel(event, IParcelOutbox::KEL_ANALYTICS);
}

// The same text, by one who knows the event's fields and that its texts need no escapes.
std::string byFmt(const AnalyticsParcel& event, u64 sequence, IsoTime& forwarded, IsoTime& stamps) {
    std::string forwardedAt;
    std::string stamp;
    forwarded.append(forwardedAt, epochMs);
    stamps.append(stamp, event.getKelTimeStamp());
    const auto device = event.getStringEntries().begin();
    const auto ratio = event.getDoubleEntries().begin();
    const auto bytes = event.getU64Entries().begin();
    const auto hits = std::next(bytes);
    const auto misses = std::next(hits);
    return fmt::format(
        R"({{"schema":1,"host":"{}","boot":"{}","sequence":{},"service":"{}","forwardedAt":"{}",)"
        R"("eventName":"{}","category":"{}","account":"{}","priority":"{}","value":{},"text":"{}",)"
        R"("details":"{}","timeStampMs":{},"timeStamp":"{}","stringEntries":{{"{}":"{}"}},)"
        R"("u32Entries":{{}},"u64Entries":{{"{}":{},"{}":{},"{}":{}}},"longEntries":{{}},)"
        R"("doubleEntries":{{"{}":"{}"}},"intEntries":{{}}}})"
        "\n",
        origin.host, origin.boot, sequence, "bench", forwardedAt, event.getEventName(),
        event.getCategory(), "KEL", "Normal", event.getValue(), event.getText(), event.getDetails(),
        event.getKelTimeStamp(), stamp, device->first, device->second, bytes->first, bytes->second,
        hits->first, hits->second, misses->first, misses->second, ratio->first, ratio->second);
}

std::vector<Result> compareWriters(const Settings& settings) {
    AnalyticsParcel event;
    fill(event);
    RecordWriter writer(origin, "bench");
    IsoTime forwarded;
    IsoTime stamps;
    if (writer.line(event, 7, epochMs) != byFmt(event, 7, forwarded, stamps)) {
        throw std::runtime_error("the two writers differ");
    }
    const auto samples = interleave({{"ours",
                                      [&](u64 times) {
                                          for (u64 i = 0; i < times; ++i) {
                                              keep(writer.line(event, i, epochMs));
                                          }
                                      }},
                                     {"fmt alone",
                                      [&](u64 times) {
                                          for (u64 i = 0; i < times; ++i) {
                                              keep(byFmt(event, i, forwarded, stamps));
                                          }
                                      }}},
                                    settings);
    const double ns = spreadOf(samples[0].ns).median;
    return {
        compare("an event of five entries as a line", samples[0], samples[1], Target::atMost(1.5)),
        {"the same, by itself", "", "ns", ns, {}, {}, Target::atMost(1'000)}};
}

// Delivers at once.
class InstantSink final : public ISink {
public:
    const char* name() const override { return "bench"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    void send(const std::vector<const Record*>& batch) override {
        std::vector<Answer> all(batch.size());
        std::transform(batch.begin(), batch.end(), all.begin(), [](const Record* each) {
            return Answer{each->ticket, Fate::Delivered, {}};
        });
        m_answers->answer(std::move(all));
    }
    void purge() override {}

private:
    IAnswers* m_answers = nullptr;
};

double seconds(const Settings& settings, double full) {
    return settings.smoke ? 0.05 : full;
}

// As many events as the forwarder takes, for so long; each second's number.
double greatestRate(ParcelOutbox& outbox, Forwarder& forwarder, double lasting) {
    const u64 startNs = monotonicNs();
    const auto endNs = startNs + static_cast<u64>(lasting * nsPerSecond);
    while (monotonicNs() < endNs) {
        while (outbox.size() > outbox.getMaxSize() / 2) {
            std::this_thread::yield();
        }
        for (int i = 0; i < 100; ++i) {
            push(outbox);
        }
    }
    forwarder.stop(std::chrono::minutes(1));
    const AccountNumbers numbers = forwarder.account().numbers();
    if (numbers.delivered != numbers.pushed) {
        throw std::runtime_error("not all was delivered: " + numbers.text());
    }
    return static_cast<double>(numbers.delivered) /
           (static_cast<double>(monotonicNs() - startNs) / nsPerSecond);
}

// Events at even distances of a millisecond's worth, whatever the forwarder does meanwhile.
std::vector<Result> forwardPaced(const Settings& settings) {
    constexpr u64 eventsPerMs = 200;
    const ScratchFolder folder(settings.path);
    OutputFile file(folder.path() / "events.jsonl");
    ParcelOutbox outbox;
    Forwarder forwarder(outbox, std::make_unique<OutputSink>(file, ParcelFormat::JsonLines), {},
                        {});
    const auto ms = static_cast<u64>(seconds(settings, 30) * OneSecondInMs);
    auto next = std::chrono::steady_clock::now();
    for (u64 i = 0; i < ms; ++i) {
        for (u64 j = 0; j < eventsPerMs; ++j) {
            push(outbox);
        }
        next += std::chrono::milliseconds(1);
        std::this_thread::sleep_until(next);
    }
    const double late =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - next).count();
    forwarder.stop(std::chrono::minutes(1));
    const AccountNumbers numbers = forwarder.account().numbers();
    return {{"of 200,000 events a second for 30 s, dropped",
             "",
             "",
             static_cast<double>(numbers.pushed - numbers.delivered),
             {},
             {},
             Target::atMost(0),
             late > 0.1 ? "the producer was late by " + std::to_string(late) + " s" : ""}};
}

std::vector<Result> forwardToNothing(const Settings& settings) {
    OutputFile file("/dev/null");
    ParcelOutbox outbox;
    Forwarder forwarder(outbox, std::make_unique<OutputSink>(file, ParcelFormat::JsonLines), {},
                        {});
    return {{"events forwarded to /dev/null",
             "",
             "1/s",
             greatestRate(outbox, forwarder, seconds(settings, 5)),
             {},
             {},
             Target::reported()}};
}

std::vector<Result> forwardBySpool(const Settings& settings) {
    std::vector<Result> rows;
    for (const bool isDurable : {false, true}) {
        const ScratchFolder folder(settings.path);
        ParcelOutbox outbox;
        ForwarderOptions options;
        options.spool = SpoolOptions{folder.path() / "spool"};
        options.spool->isDurable = isDurable;
        Forwarder forwarder(outbox, std::make_unique<InstantSink>(), {}, options);
        rows.push_back({isDurable ? "events spooled, --durable" : "events spooled",
                        "",
                        "1/s",
                        greatestRate(outbox, forwarder, seconds(settings, 5)),
                        {},
                        {},
                        isDurable ? Target::reported() : Target::atLeast(20'000)});
    }
    return rows;
}

} // namespace

std::vector<Benchmark> forwardingBenchmarks() {
    return {{"record writer", compareWriters},
            {"forwarding, paced", forwardPaced},
            {"forwarding, greatest rate", forwardToNothing},
            {"forwarding, spool", forwardBySpool}};
}
