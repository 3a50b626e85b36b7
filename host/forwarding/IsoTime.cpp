#include "host/forwarding/IsoTime.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>
#include <string_view>

std::string isoUtc(u64 epochMs) {
    const auto seconds = static_cast<time_t>(epochMs / OneSecondInMs);
    tm utc{};
    gmtime_r(&seconds, &utc);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", utc, epochMs % OneSecondInMs);
}

void IsoTime::append(std::string& out, u64 epochMs) {
    constexpr std::string_view fraction = "000Z";
    if (epochMs / OneSecondInMs != m_second) {
        m_text = isoUtc(epochMs / OneSecondInMs * OneSecondInMs);
        m_second = epochMs / OneSecondInMs;
    }
    const u64 ms = epochMs % OneSecondInMs;
    out.append(m_text, 0, m_text.size() - fraction.size());
    out += static_cast<char>('0' + ms / 100);
    out += static_cast<char>('0' + ms / 10 % 10);
    out += static_cast<char>('0' + ms % 10);
    out += 'Z';
}
