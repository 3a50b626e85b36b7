#pragma once

#include <string>
#include <string_view>

// Of an ASCII letter; any other character is left as it is, whatever the process's locale.
constexpr char lowerCase(char character) {
    const bool isUpper = character >= 'A' && character <= 'Z';
    return isUpper ? static_cast<char>(character - 'A' + 'a') : character;
}

// The text with its control characters as "\x0a", so that none of them ends a log line or controls
// a terminal.
std::string escaped(std::string_view text);
