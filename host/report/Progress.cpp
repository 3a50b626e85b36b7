#include "host/report/Progress.h"

#include "host/report/TextReport.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace report {

namespace {

constexpr auto pause = std::chrono::milliseconds(100);
constexpr const char* emptyLine = "\r\x1b[K";

} // namespace

Progress::Progress()
    : m_isShown(isatty(STDERR_FILENO) == 1), m_next(std::chrono::steady_clock::now() + pause) {}

Progress::~Progress() {
    if (m_hasShown) {
        fmt::print(stderr, "{}", emptyLine);
    }
}

void Progress::at(const Input& input) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_isShown || now < m_next) {
        return;
    }
    m_next = now + pause;
    m_hasShown = true;
    constexpr u64 mebibyte = 1U << 20U;
    const std::string share =
        input.size() == 0 ? "" : fmt::format(", {} %", 100 * input.position() / input.size());
    fmt::print(stderr, "{}reading {}: {} MiB{}", emptyLine, shown(input.name(), 40),
               input.position() / mebibyte, share);
    static_cast<void>(std::fflush(stderr));
}

} // namespace report
