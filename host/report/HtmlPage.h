#pragma once

#include "host/report/Collector.h"

#include <string>

namespace report {

// One page that shows what was collected, with charts, and needs nothing but itself.
std::string pageOf(const Collector& collector);

// Writes the page to a file, which is replaced if it is there. Throws std::runtime_error, with path
// and reason.
void writePage(const Collector& collector, const std::string& path);

} // namespace report
