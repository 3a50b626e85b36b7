#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

// A service whose operation does as little as one can. Boundary.cpp is a shared object of its own,
// so what is in it reaches the instance across its boundary, and the compiler knows of no override.
class ANALYTICS_EXPORT IProbe {
public:
    virtual u64 value() = 0;

protected:
    ~IProbe() = default;
};

class ANALYTICS_EXPORT Probe final : public IProbe {
public:
    u64 value() override;
};

// Asks for the instance so many times, and uses no more of it than its address.
ANALYTICS_EXPORT void askAcrossBoundary(u64 times);
