#pragma once

#include "host/report/Record.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace report {

// Parses JSON lines. One thread at a time.
class RecordParser {
public:
    // How many bytes behind a line must be readable.
    static const std::size_t padding;

    RecordParser();
    ~RecordParser();

    // Fills `record`, whose texts stay valid until the next call. Returns null, or why the line is
    // no record. The line may hold any bytes.
    const char* parse(std::string_view line, Record& record);

private:
    struct Implementation;
    const std::unique_ptr<Implementation> m_implementation;
};

} // namespace report
