#include "host/forwarding/ParcelFormat.h"

#include <fmt/chrono.h>
#include <fmt/color.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <array>
#include <ctime>
#include <iterator>
#include <string_view>

namespace {

using Out = std::back_insert_iterator<std::string>;

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

// A latency limit in the unit in which it reads best.
std::string duration(u32 microseconds) {
    if (microseconds >= 1'000'000) {
        return fmt::format("{:g} s", microseconds / 1e6);
    }
    if (microseconds >= 1'000) {
        return fmt::format("{:g} ms", microseconds / 1e3);
    }
    return fmt::format("{} us", microseconds);
}

template <typename Map>
auto entryOr0(const Map& entries, const std::string& key) {
    const auto found = entries.find(key);
    return found == entries.end() ? typename Map::mapped_type{} : found->second;
}

void writeHeader(Out out, const AnalyticsParcel& parcel, bool inColour) {
    const auto style = inColour ? fmt::text_style(fmt::emphasis::bold) : fmt::text_style();
    fmt::format_to(out, "{}  {}  {}", fmt::format(style, "{}", parcel.getEventName()),
                   parcel.getCategory(), isoUtc(parcel.getKelTimeStamp()));
    const auto period = parcel.getU64Entries().find("cd11");
    if (period != parcel.getU64Entries().end()) {
        fmt::format_to(out, "  period {} s (cd11)", period->second);
    }
    fmt::format_to(out, "\n");
}

struct LatencyClass {
    const char* key;
    const char* name;
    fmt::terminal_color colour;
};

constexpr std::array<LatencyClass, 5> latencyClasses = {{
    {"cm1", "fast", fmt::terminal_color::green},
    {"cm2", "moderate", fmt::terminal_color::cyan},
    {"cm3", "slow", fmt::terminal_color::yellow},
    {"cm4", "very slow", fmt::terminal_color::magenta},
    {"cm5", "slowest", fmt::terminal_color::red},
}};

void writeClass(Out out, const LatencyClass& latencyClass, const std::string& bound, u32 count,
                u64 total, bool inColour) {
    constexpr u64 barWidth = 40;
    // An I/O is an I/O: a class that is not empty shows at least one mark.
    const u64 marks = total == 0 ? 0 : (count * barWidth + total - 1) / total;
    const double share = total == 0 ? 0.0 : 100.0 * count / static_cast<double>(total);
    const auto style = inColour ? fmt::fg(latencyClass.colour) : fmt::text_style();
    const std::string bar =
        marks == 0 ? "" : "  " + fmt::format(style, "{}", std::string(marks, '#'));
    fmt::format_to(out, "  {}  {:<9}  {:>10}  {:>10}  {:>5.1f} %{}\n", latencyClass.key,
                   latencyClass.name, bound, count, share, bar);
}

void writeClasses(Out out, const AnalyticsParcel& parcel, const StorageLimits& limits,
                  bool inColour) {
    u64 total = 0;
    for (const LatencyClass& latencyClass : latencyClasses) {
        total += entryOr0(parcel.getU32Entries(), latencyClass.key);
    }
    fmt::format_to(out, "       {:<9}  {:>10}  {:>10}  {:>7}\n", "latency", "bound", "I/Os",
                   "share");
    for (std::size_t i = 0; i < latencyClasses.size(); ++i) {
        const bool isLast = i + 1 == latencyClasses.size();
        const std::string bound =
            isLast ? "> " + duration(limits.bounds[i - 1]) : "<= " + duration(limits.bounds[i]);
        writeClass(out, latencyClasses[i], bound,
                   entryOr0(parcel.getU32Entries(), latencyClasses[i].key), total, inColour);
    }
    fmt::format_to(out, "       {:<9}  {:>10}  {:>10}\n", "all", "", total);
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

void writeEpisodes(Out out, const AnalyticsParcel& parcel) {
    struct Comparison {
        const char* key;
        const char* words;
    };
    constexpr std::array<Comparison, 3> comparisons = {
        {{"lt", "is below"}, {"eq", "equals"}, {"gt", "is above"}}};

    const std::string& text = parcel.getText();
    fmt::format_to(out, "  high-latency episodes: mean {} ms (value), longest {} ms (cm6)\n",
                   parcel.getValue(), entryOr0(parcel.getU32Entries(), "cm6"));
    for (const Comparison& comparison : comparisons) {
        const std::string_view tunable = pairValue(text, comparison.key);
        if (!tunable.empty()) {
            fmt::format_to(out, "  threshold of the period {} us {} the live one, {} us ({})\n",
                           pairValue(text, "Latency Threshold"), comparison.words, tunable,
                           comparison.key);
        }
    }
}

template <typename Map>
void writeEntries(Out out, const Map& entries) {
    for (const auto& [key, value] : entries) {
        fmt::format_to(out, "  {} = {}\n", key, value);
    }
}

void writeFields(Out out, const AnalyticsParcel& parcel) {
    fmt::format_to(out, "  account {}, priority {}, value {}\n", accountName(parcel.getAccount()),
                   priorityName(parcel.getEventPriority()), parcel.getValue());
    if (!parcel.getText().empty()) {
        fmt::format_to(out, "  text: {}\n", parcel.getText());
    }
    if (!parcel.getDetails().empty()) {
        fmt::format_to(out, "  details: {}\n", parcel.getDetails());
    }
    writeEntries(out, parcel.getStringEntries());
    writeEntries(out, parcel.getU32Entries());
    writeEntries(out, parcel.getU64Entries());
    writeEntries(out, parcel.getLongEntries());
    writeEntries(out, parcel.getDoubleEntries());
    writeEntries(out, parcel.getIntEntries());
}

} // namespace

std::string isoUtc(u64 epochMs) {
    const auto seconds = static_cast<time_t>(epochMs / OneSecondInMs);
    tm utc{};
    gmtime_r(&seconds, &utc);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", utc, epochMs % OneSecondInMs);
}

std::string toJsonLine(const AnalyticsParcel& parcel) {
    const nlohmann::ordered_json json = {
        {"eventName", parcel.getEventName()},
        {"category", parcel.getCategory()},
        {"account", accountName(parcel.getAccount())},
        {"priority", priorityName(parcel.getEventPriority())},
        {"value", parcel.getValue()},
        {"text", parcel.getText()},
        {"details", parcel.getDetails()},
        {"timeStampMs", parcel.getKelTimeStamp()},
        {"timeStamp", isoUtc(parcel.getKelTimeStamp())},
        {"stringEntries", parcel.getStringEntries()},
        {"u32Entries", parcel.getU32Entries()},
        {"u64Entries", parcel.getU64Entries()},
        {"longEntries", parcel.getLongEntries()},
        {"doubleEntries", parcel.getDoubleEntries()},
        {"intEntries", parcel.getIntEntries()},
    };
    // Texts are any bytes; JSON is UTF-8.
    constexpr auto replaceInvalid = nlohmann::ordered_json::error_handler_t::replace;
    return json.dump(-1, ' ', false, replaceInvalid) + "\n";
}

std::string toText(const AnalyticsParcel& parcel, const StorageLimits& limits, bool inColour) {
    std::string text;
    const Out out(text);
    writeHeader(out, parcel, inColour);
    if (parcel.getEventName() == "StoragePeriodicParcel") {
        writeClasses(out, parcel, limits, inColour);
        writeEpisodes(out, parcel);
    } else {
        writeFields(out, parcel);
    }
    text += "\n";
    return text;
}
