#pragma once

#include "common/infra/Export.h"
#include "host/forwarding/Account.h"
#include "host/forwarding/Sink.h"

#include <functional>
#include <memory>
#include <string>

// A sink beside the engine that shows PrometheusCollector's figures at http://ADDRESS:PORT/metrics.
// It keeps no record: what it is sent is delivered.
class ANALYTICS_TAG IPrometheusEndpoint : public ISink {
public:
    // See PrometheusCollector. Any thread; empty before the account ends.
    virtual void followAccount(std::function<AccountNumbers()> account) = 0;
    // Where it listens, "127.0.0.1:9464", with the port that was chosen for port 0.
    virtual std::string address() const = 0;
};

// `address` is "ADDRESS:PORT", or "PORT" alone for the loopback interface. Throws
// std::runtime_error if it is none, cannot be listened at, or the build has left the library out.
ANALYTICS_TAG std::unique_ptr<IPrometheusEndpoint>
openPrometheusEndpoint(const std::string& address);
