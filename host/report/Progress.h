#pragma once

#include "host/report/Input.h"

#include <chrono>

namespace report {

// Shows on standard error, if it is a terminal, how much of a file is read, at most ten times a
// second.
class Progress {
public:
    Progress();
    ~Progress(); // clears the line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void at(const Input& input);

private:
    const bool m_isShown;
    bool m_hasShown = false;
    std::chrono::steady_clock::time_point m_next;
};

} // namespace report
