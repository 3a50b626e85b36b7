#pragma once

#include "common/infra/Export.h"

#include <string>
#include <vector>

class ANALYTICS_EXPORT StringUtils {
public:
    static std::vector<std::string> splitStr(const std::string& text, char separator);
    static bool contains(const std::string& text, const std::string& part);
};
