#include "host/forwarding/ParcelForwarder.h"

#include "common/infra/IParcelOutbox.h"
#include "common/infra/Log.h"
#include "common/infra/TrackedAllocation.h"
#include "host/forwarding/ParcelFormat.h"

#include <pthread.h>

#include <exception>
#include <utility>

ParcelForwarder::ParcelForwarder(ParcelOutbox& outbox, OutputFile& output, ParcelFormat format,
                                 std::function<void()> onFailure)
    : m_outbox(outbox),
      m_output(output),
      m_format(format),
      m_onFailure(std::move(onFailure)),
      m_thread(&ParcelForwarder::run, this) {}

ParcelForwarder::~ParcelForwarder() {
    drain();
}

ParcelForwarder::Counts ParcelForwarder::drain() {
    if (m_thread.joinable()) {
        m_outbox.stopWaiting();
        m_thread.join();
    }
    return m_counts;
}

void ParcelForwarder::run() {
    pthread_setname_np(pthread_self(), "forwarder");
    while (m_outbox.waitForParcel()) {
        IParcel* popped = m_outbox.popParcel(IParcelOutbox::KEL_ANALYTICS);
        if (popped != nullptr) {
            const TrackedPtr<AnalyticsParcel> parcel(static_cast<AnalyticsParcel*>(popped),
                                                     TRACKED_DELETE);
            forward(*parcel);
        }
    }
}

void ParcelForwarder::forward(const AnalyticsParcel& parcel) {
    if (m_counts.lost > 0) {
        ++m_counts.lost;
        return;
    }
    try {
        m_output.write(format(parcel));
        ++m_counts.written;
    } catch (const std::exception& error) {
        ++m_counts.lost;
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "a report is lost: " << error.what() << std::endl;
        m_onFailure();
    }
}

std::string ParcelForwarder::format(const AnalyticsParcel& parcel) const {
    if (m_format == ParcelFormat::JsonLines) {
        return toJsonLine(parcel);
    }
    return toText(parcel, m_output.isTerminal());
}
