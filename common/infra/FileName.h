#pragma once

#include "common/infra/Export.h"

#include <cstddef>
#include <string_view>

// The base name of the source file that uses it, so that no build path reaches a log.
#ifdef __FILE_NAME__
#define ANALYTICS_FILE_NAME __FILE_NAME__
#else // g++ before version 12
#define ANALYTICS_FILE_NAME (fileBaseName(__FILE__))
#endif

ANALYTICS_TAG constexpr const char* fileBaseName(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return path.data() + (slash == std::string_view::npos ? 0 : slash + 1);
}
