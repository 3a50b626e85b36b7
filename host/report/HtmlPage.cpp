#include "host/report/HtmlPage.h"

#include "host/report/Figures.h"
#include "host/report/JsonReport.h"
#include "host/report/PageFiles.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace report {

namespace {

using Json = nlohmann::ordered_json;

constexpr s64 mostHeatColumns = 120;
constexpr std::size_t mostHeatHosts = 200;

Json stepsOf(const std::vector<Cell>& cells, s64 stepMs) {
    Json steps = {{"t", Json::array()},
                  {"classes", Json::array()},
                  {"failed", Json::array()},
                  {"percentilesUs", Json::array()},
                  {"episodes", Json::array()},
                  {"episodeSumMs", Json::array()},
                  {"longestEpisodeMs", Json::array()},
                  {"thresholdUs", Json::array()},
                  {"boundsUs", Json::array()}};
    const auto column = [&](auto valueOf) {
        Json values = Json::array();
        for (const Cell& cell : cells) {
            values.push_back(valueOf(cell));
        }
        return values;
    };
    steps["t"] = column([&](const Cell& cell) { return cell.index * stepMs; });
    for (std::size_t i = 0; i < classCount; ++i) {
        steps["classes"].push_back(
            column([&](const Cell& cell) { return cell.totals.classes[i]; }));
    }
    for (std::size_t i = 0; i < PercentileCount; ++i) {
        steps["percentilesUs"].push_back(
            column([&](const Cell& cell) { return cell.totals.percentilesUs[i]; }));
    }
    for (std::size_t i = 0; i + 1 < classCount; ++i) {
        steps["boundsUs"].push_back(
            column([&](const Cell& cell) { return cell.last.boundsUs[i]; }));
    }
    steps["failed"] = column([](const Cell& cell) { return cell.totals.failed; });
    steps["episodes"] = column([](const Cell& cell) { return cell.totals.episodes; });
    steps["episodeSumMs"] = column([](const Cell& cell) { return cell.totals.episodeSumMs; });
    steps["longestEpisodeMs"] =
        column([](const Cell& cell) { return cell.totals.longestEpisodeMs; });
    steps["thresholdUs"] = column([](const Cell& cell) { return cell.last.thresholdUs; });
    return steps;
}

// How many steps make a column of the heat map.
s64 heatFactor(const std::vector<Cell>& all) {
    const s64 steps = all.empty() ? 1 : all.back().index - all.front().index + 1;
    return ceilDiv(steps, mostHeatColumns);
}

void addHeatOf(const Host& host, std::size_t row, s64 factor, s64 columnMs, Json& heat) {
    Cells coarse = host.cells;
    coarse.coarsen(factor);
    for (const Cell& cell : coarse.cells()) {
        heat["host"].push_back(row);
        heat["t"].push_back(cell.index * columnMs);
        heat["ios"].push_back(cell.totals.ios());
        heat["slow"].push_back(cell.totals.slowIos());
    }
}

// I/Os by host and time, the worst host first.
Json heatOf(const Figures& figures, const Fleet& fleet, const std::vector<Cell>& all) {
    const s64 factor = heatFactor(all);
    const std::size_t count = std::min(mostHeatHosts, figures.hosts.size());
    Json heat = {{"stepMs", factor * figures.stepMs},
                 {"left", figures.hosts.size() - count},
                 {"hosts", Json::array()},
                 {"host", Json::array()},
                 {"t", Json::array()},
                 {"ios", Json::array()},
                 {"slow", Json::array()}};
    for (std::size_t row = 0; row < count; ++row) {
        const std::string& name = figures.hosts[row].name;
        heat["hosts"].push_back(name);
        addHeatOf(fleet.hosts().find(name)->second, row, factor, factor * figures.stepMs, heat);
    }
    return heat;
}

// The same JSON with escapes for the characters that could end the script element around it or a
// line of the script.
std::string inScript(std::string_view json) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 5> escapes = {
        {{"<", "\\u003c"},
         {">", "\\u003e"},
         {"&", "\\u0026"},
         {"\xe2\x80\xa8", "\\u2028"},
         {"\xe2\x80\xa9", "\\u2029"}}};
    std::string text;
    text.reserve(json.size());
    while (!json.empty()) {
        const auto* const found =
            std::find_if(escapes.begin(), escapes.end(), [&](const auto& each) {
                return json.substr(0, each.first.size()) == each.first;
            });
        text += found == escapes.end() ? json.substr(0, 1) : found->second;
        json.remove_prefix(found == escapes.end() ? 1 : found->first.size());
    }
    return text;
}

// A text that is shown.
std::string inText(std::string_view text) {
    std::string safe;
    for (const char character : text) {
        safe += character == '<' ? "&lt;" : character == '&' ? "&amp;" : std::string(1, character);
    }
    return safe;
}

// The template with each "@NAME@" replaced. Inserted text is not searched for names.
std::string filled(std::string_view page,
                   const std::unordered_map<std::string_view, std::string>& parts) {
    std::string text;
    for (;;) {
        const auto begin = page.find('@');
        text += page.substr(0, begin);
        if (begin == std::string_view::npos) {
            return text;
        }
        const auto end = page.find('@', begin + 1);
        const auto part = parts.find(page.substr(begin + 1, end - begin - 1));
        if (part == parts.end()) {
            text += '@';
            page.remove_prefix(begin + 1);
            continue;
        }
        text += part->second;
        page.remove_prefix(end + 1);
    }
}

// `errno` says why.
std::runtime_error cannotWrite(const std::string& path) {
    return std::runtime_error("cannot write the page to " + path + ": " +
                              std::generic_category().message(errno) +
                              " (expected a file that can be written, see --html)");
}

} // namespace

std::string pageOf(const Collector& collector) {
    const Figures figures = figuresOf(collector);
    const Cells all = collector.fleet().allCells();
    const Json data = {{"stepMs", figures.stepMs},
                       {"summary", jsonOf(figures)},
                       {"steps", stepsOf(all.cells(), figures.stepMs)},
                       {"heat", heatOf(figures, collector.fleet(), all.cells())}};
    return filled(PageFiles::page, {{"STYLE", std::string(PageFiles::style)},
                                    {"SCRIPT", std::string(PageFiles::script)},
                                    {"LIBRARY", std::string(PageFiles::library)},
                                    {"LICENCE", inText(PageFiles::licence)},
                                    {"DATA", inScript(textOf(data, -1))}});
}

void checkPage(const std::string& path) {
    errno = 0;
    if (!std::ofstream(path, std::ios::binary | std::ios::app)) {
        throw cannotWrite(path);
    }
}

void writePage(const Collector& collector, const std::string& path) {
    const std::string page = pageOf(collector);
    errno = 0;
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << page << std::flush;
    if (!file) {
        throw cannotWrite(path);
    }
}

} // namespace report
