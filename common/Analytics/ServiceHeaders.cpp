#include "common/infra/Export.h"

// Named after the set of service headers that the library is built with. Services that were built
// with other headers and refer to the name of theirs do not load beside this library.
extern "C" {
ANALYTICS_VISIBLE extern const char ANALYTICS_SERVICE_HEADERS;
const char ANALYTICS_SERVICE_HEADERS = 0;
}
