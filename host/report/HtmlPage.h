#pragma once

#include "host/report/Collector.h"

#include <string>

namespace report {

// One HTML page with charts of what was collected. It loads nothing from elsewhere.
std::string pageOf(const Collector& collector);

// Checks that the file can be written. Keeps its content, or creates it empty. Throws like
// writePage().
void checkPage(const std::string& path);

// Writes the page to the file in place of its content. Throws std::runtime_error that names path
// and reason.
void writePage(const Collector& collector, const std::string& path);

} // namespace report
