#pragma once

#include "common/Analytics/FixedDaysSchedulingPolicy.h"

#include <string>
#include <vector>

// Parses a list of weekdays, separated by commas, without regard to letter case. Each is a digit
// (0 is Sunday), a name or its first three letters, or a range of them, which may go on into the
// next week: "mon,wed", "1-5", "friday-mon". Throws std::invalid_argument, with the token that is
// none of them.
std::vector<FixedDaysSchedulingPolicy::Days> parseDayList(const std::string& list);
