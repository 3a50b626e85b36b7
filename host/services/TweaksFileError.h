#pragma once

#include "common/infra/Export.h"

#include <stdexcept>
#include <string>

// What is wrong with a tunables file, in one line: "file:line: name: what it is, what was
// expected".
class ANALYTICS_EXPORT TweaksFileError : public std::runtime_error {
public:
    // Control characters in the message are escaped.
    explicit TweaksFileError(const std::string& message);
};
