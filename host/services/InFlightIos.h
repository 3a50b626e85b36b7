#pragma once

#include "common/infra/AIO.h"
#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Lock.h"
#include "host/services/ThreadLane.h"

#include <array>
#include <optional>

// The known I/Os in flight: one list of InFlightIo objects for each thread lane, so that threads
// rarely wait for a lock. Any thread.
class ANALYTICS_EXPORT InFlightIos {
public:
    void add(InFlightIo& io);
    void remove(InFlightIo& io);

    // The start of the oldest one, if there is any.
    std::optional<u64> oldestStartNs();

private:
    struct alignas(64) Stripe {
        CheckedMutex mutex; // guards the links of the list's objects too
        InFlightIo* first ANALYTICS_GUARDED_BY(mutex) = nullptr;
    };

    std::array<Stripe, ThreadLane::count + 1> m_stripes;
};
