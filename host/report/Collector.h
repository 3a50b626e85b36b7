#pragma once

#include "host/report/Fleet.h"
#include "host/report/LineSplitter.h"
#include "host/report/RecordParser.h"

#include <string>
#include <vector>

namespace report {

// A line that is no record.
struct StrangeLine {
    std::string file;
    u64 line = 0;
    std::string reason;
};

// Adds up the lines of any number of files. One thread at a time.
class Collector {
public:
    explicit Collector(Choice choice) : m_fleet(std::move(choice)) {}

    // Takes the bytes of `file`, a name for messages. It must not outlive the collector.
    LineSplitter linesOf(const std::string& file);

    const Fleet& fleet() const { return m_fleet; }
    u64 notUnderstood() const { return m_notUnderstood; }
    const std::vector<StrangeLine>& firstNotUnderstood() const { return m_first; }

private:
    void take(const std::string& file, const LineSplitter::Line& line);

    RecordParser m_parser;
    Record m_record;
    Fleet m_fleet;
    u64 m_notUnderstood = 0;
    std::vector<StrangeLine> m_first; // three at most
};

} // namespace report
