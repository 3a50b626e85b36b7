#include "host/forwarding/KafkaSink.h"

#include <stdexcept>

// Stands for KafkaSink.cpp in a build without librdkafka.
std::unique_ptr<ISink> makeKafkaSink(const KafkaSettings& /*settings*/) {
    throw std::runtime_error("this build has no Kafka: librdkafka was left out of it");
}
