#include "common/infra/StringUtils.h"

#include "host/services/Text.h"

#include <algorithm>
#include <cstddef>

std::vector<std::string> StringUtils::splitStr(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find(separator, begin)) != std::string::npos;
         begin = end + 1) {
        pieces.push_back(text.substr(begin, end - begin));
    }
    pieces.push_back(text.substr(begin));
    return pieces;
}

bool StringUtils::contains(const std::string& text, const std::string& part) {
    const auto same = [](char left, char right) { return lowerCase(left) == lowerCase(right); };
    return part.empty() ||
           std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}
