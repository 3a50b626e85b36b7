#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <string>

// "2026-11-22T21:49:54.123Z" for milliseconds since the Unix epoch.
ANALYTICS_TAG std::string isoUtc(u64 epochMs);

// The same for many moments of which most are in the second of the one before: it is formatted
// once. One thread at a time.
class ANALYTICS_TAG IsoTime {
public:
    void append(std::string& out, u64 epochMs);

private:
    u64 m_second = ~u64{0};
    std::string m_text; // of the second's begin
};
