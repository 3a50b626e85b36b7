#pragma once

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/Export.h"
#include "common/infra/IParcelOutbox.h"
#include "host/forwarding/OutputFile.h"
#include "host/forwarding/ParcelFormat.h"

#include <functional>
#include <thread>

// The consumer at the outbox's other end: a thread that takes parcels out, writes them in the
// chosen format and destroys them.
class ANALYTICS_EXPORT ParcelForwarder {
public:
    struct Counts {
        u64 written = 0;
        u64 lost = 0; // could not be written
    };

    // `onFailure` is called, on the forwarder's thread, when a parcel could not be written for the
    // first time; from then on parcels are only counted and destroyed.
    ParcelForwarder(ParcelOutbox& outbox, OutputFile& output, ParcelFormat format,
                    std::function<void()> onFailure);
    ~ParcelForwarder(); // drains
    ParcelForwarder(const ParcelForwarder&) = delete;
    ParcelForwarder& operator=(const ParcelForwarder&) = delete;

    // Writes what the outbox still holds, and ends. Ends the waiting at the outbox for good.
    Counts drain();

private:
    void run();
    void forward(const AnalyticsParcel& parcel);
    std::string format(const AnalyticsParcel& parcel) const;

    ParcelOutbox& m_outbox;
    OutputFile& m_output;
    const ParcelFormat m_format;
    const std::function<void()> m_onFailure;
    Counts m_counts; // the thread's, while it runs
    std::thread m_thread;
};
