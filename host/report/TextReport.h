#pragma once

#include "host/report/Figures.h"

#include <string>
#include <string_view>

namespace report {

// The summary in lines of at most 80 columns, with colours if `inColour`.
std::string textOf(const Figures& figures, bool inColour);

// The text cut to `width` columns, without characters that control a terminal.
std::string shown(std::string_view text, std::size_t width);

} // namespace report
