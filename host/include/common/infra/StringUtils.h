#pragma once

#include "common/infra/Export.h"

#include <string>
#include <vector>

class ANALYTICS_EXPORT StringUtils {
public:
    // The pieces between occurrences of the separator, in order, neither trimmed nor dropped when
    // empty: one piece more than there are separators.
    static std::vector<std::string> splitStr(const std::string& text, char separator);
    // Whether `part` occurs within `text`, without regard to letter case (ASCII).
    static bool contains(const std::string& text, const std::string& part);
};
