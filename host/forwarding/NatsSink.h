#pragma once

#include "common/infra/Export.h"
#include "host/forwarding/Sink.h"

#include <memory>
#include <string>

// Where and how records go to NATS JetStream.
struct ANALYTICS_TAG NatsSettings {
    std::string urls;    // "nats://host:port,nats://host:port"
    std::string subject; // that a stream takes
    // Files, as nats users keep them; empty: none.
    std::string credentials; // the user's JWT and seed
    std::string tlsCa;       // certificates to trust
    std::string tlsCert;     // the client's own, with tlsKey
    std::string tlsKey;
};

// A sink that publishes each record's line to a subject that a stream takes. A record's id is the
// message's id: the stream keeps one of those that come within its duplicate window. A record is
// delivered when the stream has acknowledged it.
//
// Fails for good: a record that is larger than the server or the stream takes.
//
// Throws std::runtime_error for a file or a URL that is none, for credentials that the server
// refuses, and for a subject that no stream takes. Servers that are away are nothing wrong: it goes
// on to look for them.
ANALYTICS_TAG std::unique_ptr<ISink> makeNatsSink(const NatsSettings& settings);
