#include "host/program/DayList.h"

#include "common/infra/StringUtils.h"

#include <optional>
#include <stdexcept>

namespace {

using Policy = FixedDaysSchedulingPolicy;
using Days = Policy::Days;

bool isSameWord(const std::string& left, const std::string& right) {
    return left.size() == right.size() && StringUtils::contains(left, right);
}

std::optional<int> dayOf(const std::string& token) {
    for (int day = Policy::SUNDAY; day < Policy::DAYS_IN_WEEK; ++day) {
        const std::string name = Policy::toString(static_cast<Days>(day));
        if (token == std::to_string(day) || isSameWord(token, name) ||
            isSameWord(token, name.substr(0, 3))) {
            return day;
        }
    }
    return std::nullopt;
}

void append(std::vector<Days>& days, const std::string& token) {
    const std::size_t dash = token.find('-');
    const auto first = dayOf(token.substr(0, dash));
    const auto last = dash == std::string::npos ? first : dayOf(token.substr(dash + 1));
    if (!first || !last) {
        throw std::invalid_argument("'" + token +
                                    "' is no day; expected days, as in mon,wed or 1-5: sun to sat, "
                                    "their full names, or 0 (Sunday) to 6");
    }
    for (int day = *first;; day = (day + 1) % Policy::DAYS_IN_WEEK) {
        days.push_back(static_cast<Days>(day));
        if (day == *last) {
            return;
        }
    }
}

} // namespace

std::vector<Days> parseDayList(const std::string& list) {
    std::vector<Days> days;
    for (const std::string& token : StringUtils::splitStr(list, ',')) {
        append(days, token);
    }
    return days;
}
