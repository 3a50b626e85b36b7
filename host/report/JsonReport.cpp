#include "host/report/JsonReport.h"

#include "host/report/Moment.h"

namespace report {

namespace {

using Json = nlohmann::ordered_json;

Json momentOf(std::optional<s64> ms) {
    return ms ? Json(isoText(*ms)) : Json(nullptr);
}

Json jsonOf(const Totals& totals) {
    Json classes = Json::object();
    for (std::size_t i = 0; i < totals.classes.size(); ++i) {
        classes["cm" + std::to_string(i + 1)] = totals.classes[i];
    }
    const auto& percentiles = totals.percentilesUs;
    return {{"reports", totals.reports},
            {"ios", totals.ios()},
            {"failedIos", totals.failed},
            {"classes", classes},
            {"slowIos", totals.slowIos()},
            {"slowShare", totals.slowShare()},
            {"worstPercentilesUs",
             {{"p50", percentiles[P50]},
              {"p90", percentiles[P90]},
              {"p99", percentiles[P99]},
              {"p99.9", percentiles[P999]},
              {"max", percentiles[Max]}}},
            {"episodes", totals.episodes},
            {"episodeSumMs", totals.episodeSumMs},
            {"meanEpisodeMs", totals.meanEpisodeMs()},
            {"longestEpisodeMs", totals.longestEpisodeMs}};
}

Json with(Json object, const Totals& totals) {
    object.update(jsonOf(totals));
    return object;
}

Json jsonOf(const Slice& slice) {
    return with({{"from", isoText(slice.fromMs)}, {"to", isoText(slice.untilMs)}}, slice.totals);
}

Json jsonOf(const StrangeLine& line) {
    return {{"file", line.file}, {"line", line.line}, {"reason", line.reason}};
}

Json jsonOf(const HostLine& line) {
    return with({{"host", line.name}, {"boots", line.boots}}, line.totals);
}

Json jsonOf(const GapLine& line) {
    return {{"host", line.host},
            {"boot", line.boot},
            {"first", line.gap.first},
            {"last", line.gap.last},
            {"missing", line.gap.count},
            {"after", line.gap.isFirst ? Json(nullptr) : Json(isoText(line.gap.afterMs))},
            {"before", isoText(line.gap.beforeMs)}};
}

Json jsonOf(const ClockStep& step) {
    return {{"host", step.host}, {"boot", step.boot}, {"byMs", step.byMs}};
}

Json jsonOf(const LimitsChange& change) {
    return {{"host", change.host},
            {"at", isoText(change.atMs)},
            {"before", report::jsonOf(change.before)},
            {"after", report::jsonOf(change.after)}};
}

template <typename Value>
Json listOf(const std::vector<Value>& values) {
    Json list = Json::array();
    for (const Value& value : values) {
        list.push_back(jsonOf(value));
    }
    return list;
}

Json setsOf(const Figures& figures) {
    Json sets = Json::object();
    for (const auto& [name, totals] : figures.sets) {
        sets[name] = jsonOf(totals);
    }
    return sets;
}

Json maximaOf(const Figures& figures) {
    Json maxima = Json::object();
    for (const auto& [name, maximum] : figures.maxima) {
        maxima[name] = {{"value", maximum.value}, {"host", maximum.host}};
    }
    return maxima;
}

Json accountOf(const Figures& figures) {
    const Account& account = figures.account;
    return {{"processes", figures.accounts}, {"pushed", account.pushed},
            {"restored", account.restored},  {"delivered", account.delivered},
            {"failed", account.failed},      {"dropped", account.dropped},
            {"evicted", account.evicted},    {"waiting", account.waiting},
            {"addsUp", account.addsUp()}};
}

} // namespace

Json jsonOf(const Limits& limits) {
    return {{"thresholdUs", limits.thresholdUs}, {"boundsUs", limits.boundsUs}};
}

Json jsonOf(const Figures& figures) {
    Json json = {{"recordsRead", figures.recordsRead},
                 {"duplicates", figures.duplicates},
                 {"missing", figures.missing},
                 {"evicted", figures.evicted},
                 {"notUnderstood", figures.notUnderstood},
                 {"firstNotUnderstood", listOf(figures.firstNotUnderstood)},
                 {"otherRecords", figures.otherRecords},
                 {"hosts", figures.hosts.size()},
                 {"boots", figures.boots},
                 {"from", momentOf(figures.fromMs)},
                 {"to", momentOf(figures.toMs)},
                 {"stepMs", figures.stepMs}};
    json.update(jsonOf(figures.totals));
    json["periods"] = listOf(figures.periods);
    json["worstTenMinutes"] = figures.worst ? jsonOf(*figures.worst) : Json(nullptr);
    json["hostsBySlowShare"] = listOf(figures.hosts);
    json["sets"] = setsOf(figures);
    json["maxima"] = maximaOf(figures);
    json["gaps"] = listOf(figures.gaps);
    json["clockSteps"] = listOf(figures.clockSteps);
    json["limitsChanges"] = listOf(figures.limitsChanges);
    json["account"] = accountOf(figures);
    return json;
}

std::string textOf(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

} // namespace report
