#include "host/forwarding/JsonText.h"

#include <array>
#include <cstddef>

namespace {

using Byte = unsigned char;

constexpr std::string_view replacement = "\xef\xbf\xbd"; // U+FFFD

// Whether a byte stands for itself in a JSON string.
constexpr std::array<bool, 256> plainBytes = [] {
    std::array<bool, 256> plain{};
    for (std::size_t byte = 0x20; byte < 0x80; ++byte) {
        plain[byte] = byte != '"' && byte != '\\';
    }
    return plain;
}();

bool isPlain(char byte) {
    return plainBytes[static_cast<Byte>(byte)];
}

void appendEscape(std::string& out, char byte) {
    constexpr std::string_view escaped = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    const std::size_t known = escaped.find(byte);
    if (known != std::string_view::npos) {
        out += '\\';
        out += letters[known];
        return;
    }
    constexpr std::string_view digits = "0123456789abcdef";
    out += "\\u00";
    out += digits[static_cast<Byte>(byte) >> 4U];
    out += digits[static_cast<Byte>(byte) & 0xfU];
}

// The characters of more than one byte, by their first byte: how many bytes follow, and the range
// of the second one, which rules out overlong forms, surrogates and what is above U+10FFFF.
struct Lead {
    Byte first, last;
    std::size_t following;
    Byte secondFrom, secondTo;
};
constexpr std::array<Lead, 8> leads = {{{0xc2, 0xdf, 1, 0x80, 0xbf},
                                        {0xe0, 0xe0, 2, 0xa0, 0xbf},
                                        {0xe1, 0xec, 2, 0x80, 0xbf},
                                        {0xed, 0xed, 2, 0x80, 0x9f},
                                        {0xee, 0xef, 2, 0x80, 0xbf},
                                        {0xf0, 0xf0, 3, 0x90, 0xbf},
                                        {0xf1, 0xf3, 3, 0x80, 0xbf},
                                        {0xf4, 0xf4, 3, 0x80, 0x8f}}};

// The bytes at the start of `text` that are a character, or the longest part of one.
struct Sequence {
    std::size_t length;
    bool isWhole;
};

Sequence sequenceAt(std::string_view text) {
    const Byte first = static_cast<Byte>(text[0]);
    for (const Lead& lead : leads) {
        if (first < lead.first || first > lead.last) {
            continue;
        }
        Byte from = lead.secondFrom;
        Byte to = lead.secondTo;
        for (std::size_t i = 1; i <= lead.following; ++i) {
            if (i == text.size() || static_cast<Byte>(text[i]) < from ||
                static_cast<Byte>(text[i]) > to) {
                return {i, false};
            }
            from = 0x80;
            to = 0xbf;
        }
        return {lead.following + 1, true};
    }
    return {1, false};
}

} // namespace

void appendJsonString(std::string& out, std::string_view text) {
    out += '"';
    while (!text.empty()) {
        std::size_t plain = 0;
        while (plain < text.size() && isPlain(text[plain])) {
            ++plain;
        }
        out.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        std::size_t length = 1;
        if (static_cast<Byte>(text[0]) < 0x80) {
            appendEscape(out, text[0]);
        } else {
            const Sequence sequence = sequenceAt(text);
            length = sequence.length;
            out.append(sequence.isWhole ? text.substr(0, length) : replacement);
        }
        text.remove_prefix(length);
    }
    out += '"';
}
