#pragma once

#include "host/report/Collector.h"

#include <string>

namespace report {

// One page that shows what was collected, with charts, and needs nothing but itself.
std::string pageOf(const Collector& collector);

// Opens the file as writePage() will, and leaves what it holds; one that is not there is made.
// Throws like writePage().
void checkPage(const std::string& path);

// Writes the page to a file, which is replaced if it is there. Throws std::runtime_error, with path
// and reason.
void writePage(const Collector& collector, const std::string& path);

} // namespace report
