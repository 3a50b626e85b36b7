#include "benchmarks/Result.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>

namespace {

using Line = std::array<std::string, 7>;
using Widths = std::array<std::size_t, std::tuple_size_v<Line>>;

const Line titles = {"operation", "baseline", "ours", "baseline's", "ratio", "target", "met"};

// Three digits tell enough of anything that is measured.
std::string toText(double value) {
    return fmt::format(value < 1000 ? "{:.3g}" : "{:.0f}", value);
}

std::string withUnit(double value, const std::string& unit) {
    return toText(value) + (unit.empty() ? "" : " " + unit);
}

std::string toText(const Spread& ratio) {
    return fmt::format("{:.2f} ({:.2f} to {:.2f})", ratio.median, ratio.lower, ratio.upper);
}

std::string toText(const Target& target) {
    switch (target.kind) {
    case Target::AtMost:
        return "at most " + toText(target.limit);
    case Target::AtLeast:
        return "at least " + toText(target.limit);
    case Target::Reported:
        break;
    }
    return "reported";
}

std::string verdict(const Result& result) {
    if (result.target.kind == Target::Reported) {
        return "";
    }
    return result.isMet() ? "yes" : "NO";
}

Line toLine(const Result& result) {
    return {result.operation,
            result.baseline,
            withUnit(result.ours, result.unit),
            result.theirs ? withUnit(*result.theirs, result.unit) : "",
            result.ratio ? toText(*result.ratio) : "",
            toText(result.target),
            verdict(result)};
}

std::string join(const Line& line, const Widths& widths) {
    std::string text;
    for (std::size_t column = 0; column < line.size(); ++column) {
        text += fmt::format("{}{:<{}}", column == 0 ? "" : "  ", line[column], widths[column]);
    }
    return text.erase(text.find_last_not_of(' ') + 1) + "\n";
}

using Json = nlohmann::ordered_json;

Json toRow(const Result& result) {
    Json row{{"operation", result.operation}, {"unit", result.unit}, {"ours", result.ours}};
    if (result.theirs) {
        row["baseline"] = {{"name", result.baseline}, {"value", *result.theirs}};
    }
    if (result.ratio) {
        row["ratio"] = {{"median", result.ratio->median},
                        {"lowerQuartile", result.ratio->lower},
                        {"upperQuartile", result.ratio->upper}};
    }
    if (result.target.kind != Target::Reported) {
        row["target"] = {
            {result.target.kind == Target::AtMost ? "atMost" : "atLeast", result.target.limit},
            {"met", result.isMet()}};
    }
    if (!result.note.empty()) {
        row["note"] = result.note;
    }
    return row;
}

} // namespace

Spread spreadOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const auto at = [&](double quantile) {
        const double position = quantile * static_cast<double>(values.size() - 1);
        const auto below = static_cast<std::size_t>(position);
        const std::size_t above = std::min(below + 1, values.size() - 1);
        const double weight = position - static_cast<double>(below);
        return values[below] + weight * (values[above] - values[below]);
    };
    return {at(0.25), at(0.5), at(0.75)};
}

bool Result::isMet() const {
    const double figure = ratio ? ratio->median : ours;
    switch (target.kind) {
    case Target::AtMost:
        return figure <= target.limit;
    case Target::AtLeast:
        return figure >= target.limit;
    case Target::Reported:
        break;
    }
    return true;
}

std::string toTable(const std::string& machine, const std::vector<Result>& results) {
    std::vector<Line> lines = {titles};
    std::transform(results.begin(), results.end(), std::back_inserter(lines), toLine);
    Widths widths{};
    for (const Line& line : lines) {
        for (std::size_t column = 0; column < line.size(); ++column) {
            widths[column] = std::max(widths[column], line[column].size());
        }
    }
    std::string text = machine + "\n\n" + join(lines.front(), widths);
    for (std::size_t row = 0; row < results.size(); ++row) {
        text += join(lines[row + 1], widths);
        if (!results[row].note.empty()) {
            text += "    " + results[row].note + "\n";
        }
    }
    return text;
}

std::string toJson(const std::string& machine, const std::vector<Result>& results) {
    Json rows = Json::array();
    std::transform(results.begin(), results.end(), std::back_inserter(rows), toRow);
    return Json{{"machine", machine}, {"rows", rows}}.dump(2) + "\n";
}
