#pragma once

#include "tests/support/RecordingLog.h"

#include <regex>
#include <string>
#include <vector>

// Log lines as texts to compare: "kel info [virtual u64 Policy::getNextSchedule()] 3: text\n".

// What differs without meaning: where in its source a call stands ("Source.cpp 12",
// "Source.cpp:12") becomes "Source.cpp N".
inline std::string withoutLineNumbers(const std::string& text) {
    return std::regex_replace(text, std::regex("\\.cpp[ :][0-9]+"), ".cpp N");
}

// g++ and clang++ set blanks around '*' and '&' differently in a signature.
inline std::string withoutBlanksAtPointers(const std::string& function) {
    return std::regex_replace(function, std::regex(" *([*&]) *"), "$1");
}

inline std::string toText(const RecordingLog::Line& line) {
    return std::string(toString(line.module)) + " " + toString(line.level) + " [" +
           withoutBlanksAtPointers(line.function) + "] " + std::to_string(line.detail) + ": " +
           withoutLineNumbers(line.text);
}

inline std::vector<std::string> toTexts(const RecordingLog& log) {
    std::vector<std::string> result;
    for (const RecordingLog::Line& line : log.lines()) {
        result.push_back(toText(line));
    }
    return result;
}
