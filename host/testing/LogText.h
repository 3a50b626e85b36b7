#pragma once

#include "common/infra/Export.h"
#include "host/testing/RecordingLog.h"

#include <regex>
#include <sstream>
#include <string>

// Log lines as texts to compare: "kel info [virtual u64 Policy::getNextSchedule()] 3: text\n".

// What differs without meaning: where in its source a call stands ("Source.cpp 12",
// "Source.cpp:12") becomes "Source.cpp N".
ANALYTICS_TAG inline std::string withoutLineNumbers(const std::string& text) {
    return std::regex_replace(text, std::regex("\\.cpp[ :][0-9]+"), ".cpp N");
}

// g++ and clang++ set blanks around '*' and '&' differently in a signature, and qualify nested
// types differently.
ANALYTICS_TAG inline std::string commonSignature(const std::string& function) {
    const std::string plain = std::regex_replace(function, std::regex(" *([*&]) *"), "$1");
    return std::regex_replace(plain, std::regex("\\w+::Days\\b"), "Days");
}

// All lines together.
ANALYTICS_TAG inline std::string toText(const RecordingLog& log) {
    std::string result;
    for (const RecordingLog::Line& line : log.lines()) {
        result += std::string(toString(line.module)) + " " + toString(line.level) + " [" +
                  commonSignature(line.function) + "] " + std::to_string(line.detail) + ": " +
                  withoutLineNumbers(line.text);
    }
    return result;
}

// All lines together, shorter: the function's name stands for its signature, the detail is left
// out, and the text is in quotes with its line ends escaped: kel info getNextSchedule "text \n".
ANALYTICS_TAG inline std::string toBriefText(const RecordingLog& log) {
    std::string result;
    for (const RecordingLog::Line& line : log.lines()) {
        std::smatch name;
        std::regex_search(line.function, name, std::regex("(\\w+)\\("));
        result += std::string(toString(line.module)) + " " + toString(line.level) + " " +
                  name.str(1) + " \"" +
                  std::regex_replace(withoutLineNumbers(line.text), std::regex("\n"), "\\n") +
                  "\"\n";
    }
    return result;
}

// The text with a name in the place of an address.
ANALYTICS_TAG inline std::string withName(const std::string& text, const void* address,
                                          const std::string& name) {
    std::ostringstream digits;
    digits << address;
    return std::regex_replace(text, std::regex(digits.str()), name);
}
