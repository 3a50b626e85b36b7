#pragma once

#include <string_view>

namespace report {

// The files that the page is made of, as they were when this was built.
struct PageFiles {
    static const std::string_view page;
    static const std::string_view style;
    static const std::string_view script;
    static const std::string_view library;
    static const std::string_view licence; // of the library
};

} // namespace report
