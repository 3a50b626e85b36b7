#include "host/services/Text.h"

#include <fmt/format.h>

#include <iterator>

std::string escaped(std::string_view text) {
    std::string result;
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20 || code == 0x7f) {
            fmt::format_to(std::back_inserter(result), "\\x{:02x}", code);
        } else {
            result += character;
        }
    }
    return result;
}
