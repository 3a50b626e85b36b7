#pragma once

#include "common/infra/Defs.h"

#include <cstddef>
#include <functional>
#include <string_view>
#include <vector>

namespace report {

// Splits bytes into lines as they come. Holds at most one line, of up to `longest` bytes.
class LineSplitter {
public:
    struct Line {
        // Without its line feed; `padding` readable bytes stand behind it.
        std::string_view text;
        u64 number = 0;         // from 1
        bool isTooLong = false; // `text` is empty then
    };
    using OnLine = std::function<void(const Line&)>;

    static constexpr std::size_t longest = std::size_t{16} << 20U;

    LineSplitter(std::size_t padding, OnLine onLine);

    // Where the next bytes go, until bytesAdded(): `roomSize()` of them.
    char* room();
    std::size_t roomSize() const;
    // Calls `onLine` for each line that is complete with these bytes.
    void bytesAdded(std::size_t count);
    // Calls `onLine` for the rest after the last line feed, if there is one. Further bytes begin a
    // new line.
    void finish();

private:
    void endLine(std::string_view text);
    void keep(std::size_t begin, std::size_t end);

    const std::size_t m_padding;
    const OnLine m_onLine;
    std::vector<char> m_buffer;
    std::size_t m_used = 0; // a line that is not complete
    u64 m_lines = 0;
    bool m_isTooLong = false; // the line that is not complete
};

} // namespace report
