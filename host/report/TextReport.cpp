#include "host/report/TextReport.h"

#include "host/report/Moment.h"
#include "host/services/Text.h"

#include <fmt/color.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace report {

namespace {

using Out = std::back_insert_iterator<std::string>;

struct LatencyClass {
    const char* key;
    const char* name;
    fmt::terminal_color colour;
};

constexpr std::array<LatencyClass, classCount> latencyClasses = {{
    {"cm1", "fast", fmt::terminal_color::green},
    {"cm2", "moderate", fmt::terminal_color::cyan},
    {"cm3", "slow", fmt::terminal_color::yellow},
    {"cm4", "very slow", fmt::terminal_color::magenta},
    {"cm5", "slowest", fmt::terminal_color::red},
}};

constexpr std::size_t nameWidth = 20;
constexpr std::size_t mostHosts = 10;
constexpr std::size_t mostLines = 10; // of gaps, clock steps and changes of the limits

// The character that begins the text, and how many columns it takes.
struct Character {
    std::string text;
    std::size_t taken = 1; // bytes
    std::size_t width = 1;
};

// Whether a character beyond ASCII controls a terminal or the direction of writing. Below 0x80 it
// is a longer encoding than it should have.
bool steers(u32 code) {
    return code < 0xa0 || (code >= 0x200b && code <= 0x200f) ||
           (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069) ||
           code == 0xfeff;
}

bool areContinuations(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
    });
}

u32 codeOf(std::string_view bytes) {
    constexpr std::array<u32, 5> masks = {0, 0x7f, 0x1f, 0x0f, 0x07};
    u32 code = static_cast<unsigned char>(bytes.front()) & masks[bytes.size()];
    for (const char byte : bytes.substr(1)) {
        code = code << 6U | (static_cast<unsigned char>(byte) & 0x3fU);
    }
    return code;
}

Character firstOf(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80) {
        const std::string safe = escaped(text.substr(0, 1));
        return {safe, 1, safe.size()};
    }
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    const std::string_view bytes = text.substr(0, length);
    if (lead < 0xc0 || bytes.size() < length || !areContinuations(bytes.substr(1))) {
        return {"?", 1, 1};
    }
    const u32 code = codeOf(bytes);
    if (steers(code)) {
        return {"?", length, 1};
    }
    constexpr u32 firstWide = 0x1100;
    return {std::string(bytes), length, code >= firstWide ? std::size_t{2} : std::size_t{1}};
}

struct Fitted {
    std::string text;
    std::size_t columns = 0;
};

Fitted fitted(std::string_view text, std::size_t width) {
    Fitted whole;
    Fitted cut; // leaves room for the mark of a cut
    while (!text.empty()) {
        const Character character = firstOf(text);
        whole.columns += character.width;
        if (whole.columns > width) {
            return {cut.text + "~", cut.columns + 1};
        }
        whole.text += character.text;
        if (whole.columns < width) {
            cut = whole;
        }
        text.remove_prefix(character.taken);
    }
    return whole;
}

// The text cut or filled up to `width` columns.
std::string column(std::string_view text, std::size_t width) {
    const Fitted fit = fitted(text, width);
    return fit.text + std::string(width - fit.columns, ' ');
}

std::string marks(double share, u64 count, double width) {
    // A class with at least one I/O shows at least one mark.
    const auto number = static_cast<std::size_t>(share * width + 0.5);
    return std::string(count == 0 ? 0 : std::max<std::size_t>(number, 1), '#');
}

// "99.3 %". A share above zero is never shown as 0.
std::string percent(double share, u64 count) {
    return count > 0 && share < 0.0005 ? "<0.1 %" : fmt::format("{:.1f} %", 100 * share);
}

void writeTitle(Out out, std::string_view title, bool inColour) {
    const auto style = inColour ? fmt::text_style(fmt::emphasis::bold) : fmt::text_style();
    fmt::format_to(out, "{}\n", fmt::format(style, "{}", title));
}

std::string counted(u64 count, std::string_view what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : what.back() == 's' ? "es" : "s");
}

void writeHead(Out out, const Figures& figures, bool inColour) {
    writeTitle(out, "Storage latency", inColour);
    if (!figures.fromMs) {
        fmt::format_to(out, "  no records in this time\n");
        return;
    }
    const auto length = static_cast<double>(*figures.toMs - *figures.fromMs);
    fmt::format_to(out, "  {} to {} UTC, {}\n", readableText(*figures.fromMs),
                   readableText(*figures.toMs), durationText(length));
    fmt::format_to(out, "  {}, {}, {}\n", counted(figures.hosts.size(), "host"),
                   counted(figures.boots, "boot"), counted(figures.totals.reports, "report"));
}

void writeClasses(Out out, const Totals& totals, bool inColour) {
    constexpr double barWidth = 38;
    const u64 ios = totals.ios();
    fmt::format_to(out, "\n       {:<9}  {:>14}  {:>7}\n", "latency", "I/Os", "share");
    for (std::size_t i = 0; i < latencyClasses.size(); ++i) {
        const u64 count = totals.classes[i];
        const double share = ios == 0 ? 0 : static_cast<double>(count) / static_cast<double>(ios);
        const auto style = inColour ? fmt::fg(latencyClasses[i].colour) : fmt::text_style();
        const std::string bar = marks(share, count, barWidth);
        fmt::format_to(out, "  {}  {:<9}  {:>14}  {:>7}{}\n", latencyClasses[i].key,
                       latencyClasses[i].name, count, percent(share, count),
                       bar.empty() ? "" : "  " + fmt::format(style, "{}", bar));
    }
    fmt::format_to(out, "       {:<9}  {:>14}\n       {:<9}  {:>14}\n", "all", ios, "failed",
                   totals.failed);
}

void writeLatencies(Out out, const Totals& totals) {
    const auto& us = totals.percentilesUs;
    fmt::format_to(out, "  worst period: p50 {}  p90 {}  p99 {}  p99.9 {}\n", latencyText(us[P50]),
                   latencyText(us[P90]), latencyText(us[P99]), latencyText(us[P999]));
    fmt::format_to(out, "  high-latency episodes: {}, mean {}, longest {}\n", totals.episodes,
                   durationText(totals.meanEpisodeMs()), durationText(totals.longestEpisodeMs));
}

void writeRow(Out out, std::string_view name, const Totals& totals) {
    constexpr double barWidth = 10;
    const double share = totals.slowShare();
    fmt::format_to(out, "  {}  {:>13}  {:>7}  {:<10}  {:>8}  {:>8}\n", column(name, nameWidth),
                   totals.ios(), percent(share, totals.slowIos()),
                   marks(share, totals.slowIos(), barWidth), latencyText(totals.percentilesUs[P99]),
                   durationText(totals.longestEpisodeMs));
}

void writeRowTitles(Out out, const char* name) {
    fmt::format_to(out, "  {:<{}}  {:>13}  {:>7}  {:<10}  {:>8}  {:>8}\n", name, nameWidth, "I/Os",
                   "slow", "", "p99", "episode");
}

void writePeriods(Out out, const Figures& figures, bool inColour) {
    if (figures.periods.size() < 2) {
        return;
    }
    const double length =
        static_cast<double>(figures.periods.front().untilMs - figures.periods.front().fromMs);
    fmt::format_to(out, "\n");
    writeTitle(out,
               fmt::format("Over time, by {}: slow are cm3 to cm5, p99 is the worst report's",
                           durationText(length)),
               inColour);
    writeRowTitles(out, "from (UTC)");
    for (const Slice& period : figures.periods) {
        writeRow(out, readableText(period.fromMs), period.totals);
    }
    if (figures.worst) {
        const Slice& worst = *figures.worst;
        fmt::format_to(out, "  worst {}: from {}, {} of {} I/Os slow\n",
                       durationText(static_cast<double>(worst.untilMs - worst.fromMs)),
                       readableText(worst.fromMs),
                       percent(worst.totals.slowShare(), worst.totals.slowIos()),
                       worst.totals.ios());
    }
}

void writeHosts(Out out, const Figures& figures, bool inColour) {
    if (figures.hosts.size() < 2) {
        return;
    }
    fmt::format_to(out, "\n");
    writeTitle(out, "Worst hosts, by share of slow I/Os", inColour);
    writeRowTitles(out, "host");
    for (std::size_t i = 0; i < std::min(mostHosts, figures.hosts.size()); ++i) {
        writeRow(out, figures.hosts[i].name, figures.hosts[i].totals);
    }
    if (figures.hosts.size() > mostHosts) {
        fmt::format_to(out, "  and {} more\n", figures.hosts.size() - mostHosts);
    }
}

void writeSets(Out out, const Figures& figures, bool inColour) {
    if (figures.sets.empty()) {
        return;
    }
    fmt::format_to(out, "\n");
    writeTitle(out, "Sets, which are parts of the above", inColour);
    writeRowTitles(out, "set");
    for (const auto& [name, totals] : figures.sets) {
        writeRow(out, name, totals);
    }
}

void writeMaxima(Out out, const Figures& figures, bool inColour) {
    if (figures.totals.reports == 0 && figures.maxima.empty()) {
        return;
    }
    fmt::format_to(out, "\n");
    writeTitle(out, "Maxima", inColour);
    if (figures.totals.reports > 0) {
        fmt::format_to(out, "  longest I/O in a report: {}\n",
                       latencyText(figures.totals.percentilesUs[Max]));
    }
    for (const auto& [name, maximum] : figures.maxima) {
        fmt::format_to(out, "  {} = {}  ({})\n", shown(name, 24), maximum.value,
                       shown(maximum.host, 24));
    }
}

void writeAccount(Out out, const Figures& figures, bool inColour) {
    if (figures.accounts == 0) {
        return;
    }
    const Account& account = figures.account;
    fmt::format_to(out, "\n");
    writeTitle(out,
               fmt::format("Account of {}", counted(figures.accounts, "process")) +
                   (figures.accounts == 1 ? "" : ", summed up"),
               inColour);
    fmt::format_to(out, "  pushed {} + restored {}\n", account.pushed, account.restored);
    fmt::format_to(out, "  {} delivered {} + failed {} + dropped {}\n",
                   account.addsUp() ? "=" : "is NOT", account.delivered, account.failed,
                   account.dropped);
    fmt::format_to(out, "    + evicted {} + waiting {}\n", account.evicted, account.waiting);
}

std::string place(const std::string& host, const std::string& boot) {
    return fmt::format("host {}, boot {}", shown(host, 20), shown(boot, 8));
}

std::string gapText(const GapLine& line) {
    const std::string what = fmt::format("  {}: {} missing", place(line.host, line.boot),
                                         counted(line.gap.count, "record"));
    const std::string before = readableText(line.gap.beforeMs);
    return line.gap.isFirst ? fmt::format("{}\n    before {}\n", what, before)
                            : fmt::format("{}\n    between {} and {}\n", what,
                                          readableText(line.gap.afterMs), before);
}

// The first ten lines, and how many follow.
template <typename Values, typename Text>
void writeFirst(Out out, const Values& values, Text textOfOne) {
    const std::size_t count = std::min(mostLines, values.size());
    for (std::size_t i = 0; i < count; ++i) {
        fmt::format_to(out, "{}", textOfOne(values[i]));
    }
    if (values.size() > count) {
        fmt::format_to(out, "  and {} more such lines\n", values.size() - count);
    }
}

std::string limitsText(const Limits& limits) {
    const auto& bounds = limits.boundsUs;
    return fmt::format("threshold {}, bounds {} {} {} {}", latencyText(limits.thresholdUs),
                       latencyText(bounds[0]), latencyText(bounds[1]), latencyText(bounds[2]),
                       latencyText(bounds[3]));
}

void writeRecords(Out out, const Figures& figures, bool inColour) {
    fmt::format_to(out, "\n");
    writeTitle(out, "Records", inColour);
    fmt::format_to(out, "  {} read, {} doubled, {} missing, {} not understood", figures.recordsRead,
                   figures.duplicates, figures.missing, figures.notUnderstood);
    fmt::format_to(out, figures.evicted > 0 ? ", {} evicted\n" : "\n", figures.evicted);
    for (const StrangeLine& line : figures.firstNotUnderstood) {
        fmt::format_to(out, "  {}:{}: {}\n", shown(line.file, 30), line.line, line.reason);
    }
    writeFirst(out, figures.gaps, gapText);
    writeFirst(out, figures.clockSteps, [](const ClockStep& step) {
        return fmt::format("  {}: the clock was set by {}\n", place(step.host, step.boot),
                           durationText(static_cast<double>(step.byMs)));
    });
    writeFirst(out, figures.limitsChanges, [](const LimitsChange& change) {
        return fmt::format("  host {}: limits changed by {}, to\n    {}\n", shown(change.host, 20),
                           readableText(change.atMs), limitsText(change.after));
    });
}

} // namespace

std::string shown(std::string_view text, std::size_t width) {
    return fitted(text, width).text;
}

std::string textOf(const Figures& figures, bool inColour) {
    std::string text;
    const Out out(text);
    writeHead(out, figures, inColour);
    if (figures.totals.reports > 0) {
        writeClasses(out, figures.totals, inColour);
        writeLatencies(out, figures.totals);
        writePeriods(out, figures, inColour);
        writeHosts(out, figures, inColour);
    }
    writeSets(out, figures, inColour);
    writeMaxima(out, figures, inColour);
    writeAccount(out, figures, inColour);
    writeRecords(out, figures, inColour);
    return text;
}

} // namespace report
