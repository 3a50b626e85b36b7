#pragma once

#include "common/infra/Export.h"
#include "host/forwarding/Sink.h"

#include <map>
#include <memory>
#include <string>

// Where and how records go to Apache Kafka.
class ANALYTICS_TAG KafkaSettings {
public:
    std::string brokers; // "host:port,host:port"
    std::string topic;

    // Adds the properties of librdkafka that a file holds, one "name=value" a line; '#' begins a
    // comment line. Throws std::runtime_error with file and line.
    void readFile(const std::string& path);
    // Adds a property given as "name=value" where others can read it, such as on a command line.
    // Throws std::runtime_error for a secret one, or a text of another form.
    void set(const std::string& assignment);

    const std::map<std::string, std::string>& properties() const { return m_properties; }

private:
    std::map<std::string, std::string> m_properties;
};

// A sink that produces each record's line to a topic, with the host as its key, so that a
// partition keeps a host's records in order. An idempotent producer, whose time-outs are finite:
// a record that no broker has acknowledged for five minutes ("message.timeout.ms") is to be sent
// again. What is given up at a purge may have reached a broker, and is stored twice then.
//
// Fails for good: a record that is larger than "message.max.bytes", or than the topic takes.
//
// Throws std::runtime_error for a property that librdkafka does not know or take, for one that the
// sink has to set itself, and for a topic that the brokers do not have. Brokers that do not answer
// this question within three seconds are nothing wrong: records wait for them.
ANALYTICS_TAG std::unique_ptr<ISink> makeKafkaSink(const KafkaSettings& settings);
