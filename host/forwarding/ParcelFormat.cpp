#include "host/forwarding/ParcelFormat.h"

#include "host/forwarding/IsoTime.h"
#include "host/services/Text.h"

#include <fmt/color.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

namespace {

using Out = std::back_insert_iterator<std::string>;

void writeIfAny(Out out, const char* name, const std::string& text) {
    if (!text.empty()) {
        fmt::format_to(out, "  {}: {}\n", name, text);
    }
}

// The entries that are not shown yet. Each is taken when it is shown, so none is lost.
struct Entries {
    explicit Entries(const AnalyticsParcel& parcel)
        : strings(parcel.getStringEntries()),
          u32s(parcel.getU32Entries()),
          u64s(parcel.getU64Entries()) {}

    std::map<std::string, std::string> strings;
    std::map<std::string, u32> u32s;
    std::map<std::string, u64> u64s;
};

template <typename Map>
std::optional<typename Map::mapped_type> take(Map& entries, const std::string& key) {
    auto node = entries.extract(key);
    return node ? std::optional(std::move(node.mapped())) : std::nullopt;
}

struct LatencyClass {
    const char* key;
    const char* name;
    const char* comparison; // of its latencies with the bound
    const char* bound;
    fmt::terminal_color colour;
};

constexpr std::array<LatencyClass, 5> latencyClasses = {{
    {"cm1", "fast", "<=", "boundFastUs", fmt::terminal_color::green},
    {"cm2", "moderate", "<=", "boundModerateUs", fmt::terminal_color::cyan},
    {"cm3", "slow", "<=", "boundSlowUs", fmt::terminal_color::yellow},
    {"cm4", "very slow", "<=", "boundVerySlowUs", fmt::terminal_color::magenta},
    {"cm5", "slowest", ">", "boundVerySlowUs", fmt::terminal_color::red},
}};

bool isStorageReport(const AnalyticsParcel& parcel) {
    const auto& entries = parcel.getU32Entries();
    return std::all_of(latencyClasses.begin(), latencyClasses.end(), [&](const LatencyClass& each) {
        return entries.find(each.key) != entries.end();
    });
}

void writePeriod(Out out, Entries& entries) {
    const std::optional<u64> seconds = take(entries.u64s, "cd11");
    if (const std::optional<u64> ms = take(entries.u64s, "periodMs")) {
        fmt::format_to(out, "  period {} s", static_cast<double>(*ms) / OneSecondInMs);
    } else if (seconds) {
        fmt::format_to(out, "  period {} s", *seconds);
    }
}

void writeHeader(Out out, const AnalyticsParcel& parcel, Entries& entries, bool inColour) {
    const auto style = inColour ? fmt::text_style(fmt::emphasis::bold) : fmt::text_style();
    fmt::format_to(out, "{}  {}", fmt::format(style, "{}", parcel.getEventName()),
                   parcel.getCategory());
    if (isStorageReport(parcel)) {
        if (const std::optional<std::string> set = take(entries.strings, "set")) {
            fmt::format_to(out, "  set {}", *set);
        }
    }
    fmt::format_to(out, "  {}", isoUtc(parcel.getKelTimeStamp()));
    writePeriod(out, entries);
    fmt::format_to(out, "\n");
}

std::string boundText(const LatencyClass& latencyClass, const AnalyticsParcel& parcel) {
    const auto bound = parcel.getU32Entries().find(latencyClass.bound);
    constexpr int digits = 6;
    return bound == parcel.getU32Entries().end()
               ? ""
               : fmt::format("{} {}", latencyClass.comparison, latencyText(bound->second, digits));
}

void writeClass(Out out, const LatencyClass& latencyClass, const std::string& bound, u32 count,
                u64 total, bool inColour) {
    constexpr u64 barWidth = 25;
    // A class with at least one I/O shows at least one mark.
    const u64 marks = total == 0 ? 0 : (count * barWidth + total - 1) / total;
    const double share = total == 0 ? 0.0 : 100.0 * count / static_cast<double>(total);
    const auto style = inColour ? fmt::fg(latencyClass.colour) : fmt::text_style();
    const std::string bar =
        marks == 0 ? "" : "  " + fmt::format(style, "{}", std::string(marks, '#'));
    fmt::format_to(out, "  {}  {:<9}  {:>13}  {:>10}  {:>5.1f} %{}\n", latencyClass.key,
                   latencyClass.name, bound, count, share, bar);
}

void writeCount(Out out, const char* name, u64 count) {
    fmt::format_to(out, "       {:<9}  {:>13}  {:>10}\n", name, "", count);
}

void writeClasses(Out out, const AnalyticsParcel& parcel, Entries& entries, bool inColour) {
    u64 total = 0;
    for (const LatencyClass& latencyClass : latencyClasses) {
        total += parcel.getU32Entries().at(latencyClass.key);
    }
    fmt::format_to(out, "       {:<9}  {:>13}  {:>10}  {:>7}\n", "latency", "bound", "I/Os",
                   "share");
    for (const LatencyClass& latencyClass : latencyClasses) {
        writeClass(out, latencyClass, boundText(latencyClass, parcel),
                   *take(entries.u32s, latencyClass.key), total, inColour);
        entries.u32s.erase(latencyClass.bound);
    }
    writeCount(out, "all", total);
    if (const std::optional<u64> failed = take(entries.u64s, "failedIos")) {
        writeCount(out, "failed", *failed);
    }
}

// One line of those that the parcel has.
void writePercentiles(Out out, Entries& entries) {
    constexpr std::array<std::pair<const char*, const char*>, 5> percentiles = {
        {{"p50Us", "p50"},
         {"p90Us", "p90"},
         {"p99Us", "p99"},
         {"p999Us", "p99.9"},
         {"maxUs", "max"}}};
    constexpr int digits = 4;
    std::string line;
    for (const auto& [key, name] : percentiles) {
        if (const std::optional<u32> us = take(entries.u32s, key)) {
            line += fmt::format("  {} {}", name, latencyText(*us, digits));
        }
    }
    fmt::format_to(out, "{}", line.empty() ? line : line + "\n");
}

void writeEpisodes(Out out, const AnalyticsParcel& parcel, Entries& entries) {
    fmt::format_to(out, "  high-latency episodes: ");
    if (const std::optional<u32> episodes = take(entries.u32s, "episodes")) {
        fmt::format_to(out, "{}, ", *episodes);
    }
    fmt::format_to(out, "mean {} ms", parcel.getValue());
    if (const std::optional<u32> longest = take(entries.u32s, "cm6")) {
        fmt::format_to(out, ", longest {} ms", *longest);
    }
    if (const std::optional<u64> sum = take(entries.u64s, "episodeSumMs")) {
        fmt::format_to(out, ", sum {} ms", *sum);
    }
    fmt::format_to(out, "\n");
}

// The value of a "[key=value]" pair; empty if there is none.
std::string_view pairValue(std::string_view text, std::string_view key) {
    const std::string opening = fmt::format("[{}=", key);
    const auto start = text.find(opening);
    if (start == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(start + opening.size());
    return text.substr(0, text.find(']'));
}

// The threshold that the text of a storage report tells, if it is not the one that is live; a text
// of any other form as it is.
void writeThreshold(Out out, const std::string& text) {
    constexpr std::array<std::pair<const char*, const char*>, 3> comparisons = {
        {{"lt", "is below"}, {"eq", nullptr}, {"gt", "is above"}}};
    const std::string_view threshold = pairValue(text, "Latency Threshold");
    for (const auto& [key, words] : comparisons) {
        const std::string_view live = pairValue(text, key);
        if (text == fmt::format("[Latency Threshold={}][{}={}]", threshold, key, live)) {
            if (words != nullptr) {
                fmt::format_to(out, "  threshold of the period {} us {} the live one, {} us\n",
                               threshold, words, live);
            }
            return;
        }
    }
    writeIfAny(out, "text", text);
}

void writeStorageReport(Out out, const AnalyticsParcel& parcel, Entries& entries, bool inColour) {
    writeClasses(out, parcel, entries, inColour);
    writePercentiles(out, entries);
    writeEpisodes(out, parcel, entries);
    writeThreshold(out, parcel.getText());
}

void writeFields(Out out, const AnalyticsParcel& parcel) {
    fmt::format_to(out, "  account {}, priority {}, value {}\n", accountName(parcel.getAccount()),
                   priorityName(parcel.getEventPriority()), parcel.getValue());
    writeIfAny(out, "text", parcel.getText());
}

template <typename Map>
void writeAll(Out out, const Map& entries) {
    for (const auto& [key, value] : entries) {
        fmt::format_to(out, "  {} = {}\n", key, value);
    }
}

void writeRest(Out out, const AnalyticsParcel& parcel, const Entries& entries) {
    writeIfAny(out, "details", parcel.getDetails());
    writeAll(out, entries.strings);
    writeAll(out, entries.u32s);
    writeAll(out, entries.u64s);
    writeAll(out, parcel.getLongEntries());
    writeAll(out, parcel.getDoubleEntries());
    writeAll(out, parcel.getIntEntries());
}

} // namespace

const char* accountName(AnalyticsParcel::AccountType account) {
    return account == AnalyticsParcel::QEM ? "QEM" : "KEL";
}

const char* priorityName(AnalyticsParcel::Priority priority) {
    switch (priority) {
    case AnalyticsParcel::High:
        return "High";
    case AnalyticsParcel::Critical:
        return "Critical";
    default:
        return "Normal";
    }
}

std::string formatParcel(const AnalyticsParcel& parcel, bool inColour) {
    std::string text;
    const Out out(text);
    Entries entries(parcel);
    writeHeader(out, parcel, entries, inColour);
    if (isStorageReport(parcel)) {
        writeStorageReport(out, parcel, entries, inColour);
    } else {
        writeFields(out, parcel);
    }
    writeRest(out, parcel, entries);
    text += "\n";
    return text;
}
