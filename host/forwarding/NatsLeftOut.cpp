#include "host/forwarding/NatsSink.h"

#include <stdexcept>

// Stands for NatsSink.cpp in a build without libnats.
std::unique_ptr<ISink> makeNatsSink(const NatsSettings& /*settings*/) {
    throw std::runtime_error("this build has no NATS: libnats was left out of it");
}
