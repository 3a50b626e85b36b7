#include "host/forwarding/PrometheusEndpoint.h"

#include <stdexcept>

// Stands for PrometheusEndpoint.cpp in a build without prometheus-cpp.
std::unique_ptr<IPrometheusEndpoint> openPrometheusEndpoint(const std::string& /*address*/) {
    throw std::runtime_error("this build has no Prometheus: prometheus-cpp was left out of it");
}
