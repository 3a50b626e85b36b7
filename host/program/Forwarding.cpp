#include "host/program/Forwarding.h"

#include "host/forwarding/KafkaSink.h"
#include "host/forwarding/NatsSink.h"
#include "host/forwarding/OutputSink.h"

#include <utility>
#include <vector>

namespace {

std::unique_ptr<ISink> makeKafka(const ForwardingOptions& options) {
    KafkaSettings settings;
    settings.brokers = options.kafkaBrokers;
    settings.topic = options.kafkaTopic;
    if (!options.kafkaConfig.empty()) {
        settings.readFile(options.kafkaConfig);
    }
    for (const std::string& property : options.kafkaProperties) {
        settings.set(property);
    }
    return makeKafkaSink(settings);
}

// Null if there is none.
std::unique_ptr<ISink> makeEngine(const ForwardingOptions& options) {
    if (!options.kafkaBrokers.empty()) {
        return makeKafka(options);
    }
    if (!options.nats.urls.empty()) {
        return makeNatsSink(options.nats);
    }
    return nullptr;
}

} // namespace

Forwarding::Forwarding(const Options& options)
    : m_options(options),
      m_output(options.outputFile),
      m_page(options.htmlFile.empty() ? nullptr : std::make_unique<RunPage>(options.htmlFile)),
      m_endpoint(options.forwarding.prometheus.empty()
                     ? nullptr
                     : openPrometheusEndpoint(options.forwarding.prometheus)),
      m_engine(makeEngine(options.forwarding)) {
    if (m_engine != nullptr && !options.outputFile.empty()) {
        m_besideOutput = std::make_unique<OutputSink>(m_output, options.format);
    }
}

Forwarding::~Forwarding() {
    close();
}

void Forwarding::start(ParcelOutbox& outbox, const std::function<void()>& onOutputFailure) {
    ForwarderOptions options;
    options.hostId = m_options.forwarding.hostId;
    options.service = m_options.forwarding.service;
    options.spool = m_options.forwarding.spool;
    if (m_engine == nullptr) {
        m_engine = std::make_unique<OutputSink>(m_output, m_options.format);
        options.onFailure = onOutputFailure;
    }
    m_forwarder = std::make_unique<Forwarder>(outbox, std::move(m_engine), beside(), options);
    if (m_endpoint != nullptr) {
        m_endpoint->followAccount([this] { return numbers(); });
    }
}

std::vector<ISink*> Forwarding::beside() {
    std::vector<ISink*> sinks;
    for (ISink* sink : {m_besideOutput.get(), static_cast<ISink*>(m_endpoint.get()),
                        static_cast<ISink*>(m_page.get())}) {
        if (sink != nullptr) {
            sinks.push_back(sink);
        }
    }
    return sinks;
}

bool Forwarding::stop(std::chrono::milliseconds limit) {
    if (!m_forwarder->stop(limit)) {
        return false;
    }
    const CheckedLock lock(m_mutex);
    m_last = m_forwarder->account().numbers();
    return true;
}

void Forwarding::writePage() const {
    if (m_page != nullptr) {
        m_page->write();
    }
}

void Forwarding::close() {
    if (m_endpoint != nullptr) {
        m_endpoint->followAccount({});
    }
    m_forwarder.reset();
    m_endpoint.reset();
}

AccountNumbers Forwarding::numbers() const {
    const CheckedLock lock(m_mutex);
    return m_last ? *m_last : m_forwarder->account().numbers();
}
