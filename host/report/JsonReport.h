#pragma once

#include "host/report/Figures.h"

#include <nlohmann/json.hpp>

namespace report {

// The figures as one object.
nlohmann::ordered_json jsonOf(const Figures& figures);

// Its text. Bytes that are not UTF-8, as a file's name may have, become U+FFFD.
std::string textOf(const nlohmann::ordered_json& json, int indent);

nlohmann::ordered_json jsonOf(const Limits& limits);

} // namespace report
