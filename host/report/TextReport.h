#pragma once

#include "host/report/Figures.h"

#include <string>
#include <string_view>

namespace report {

// The figures to read, in lines of at most 80 columns. `inColour` is for a terminal.
std::string textOf(const Figures& figures, bool inColour);

// The text in at most `width` columns, with nothing in it that steers a terminal.
std::string shown(std::string_view text, std::size_t width);

} // namespace report
