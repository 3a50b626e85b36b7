#pragma once

#include "host/report/Input.h"

#include <chrono>

namespace report {

// Tells on standard error, if that is a terminal, how far a file is read. At most ten times a
// second.
class Progress {
public:
    Progress();
    ~Progress(); // leaves an empty line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void at(const Input& input);

private:
    const bool m_isShown;
    bool m_hasShown = false;
    std::chrono::steady_clock::time_point m_next;
};

} // namespace report
