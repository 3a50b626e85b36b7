#pragma once

#include "host/report/Record.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace report {

// Takes JSON lines apart. One thread at a time.
class RecordParser {
public:
    // How many bytes behind a line must be readable.
    static const std::size_t padding;

    RecordParser();
    ~RecordParser();

    // Fills `record`, whose texts stay valid until the next call. Answers null, or why the line is
    // no record. Any bytes will do.
    const char* parse(std::string_view line, Record& record);

private:
    struct Implementation;
    const std::unique_ptr<Implementation> m_implementation;
};

} // namespace report
