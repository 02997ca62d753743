// The service's numbers in the formats of OpenMetrics and Prometheus.
#pragma once

#include "tools/zeld/status.hpp"

namespace zeld {

// All numbers of one moment. Holds nothing of the service, so any thread may show it.
struct Metrics {
    struct Pair {
        uint32_t app_type;
        uint16_t policy;
        uint16_t pair;
        uint64_t packets;
        uint64_t bytes;
    };

    observe::Status status{};
    Tally tally{};
    std::vector<Pair> pairs{}; // the first ones, in order of application, policy and place
    uint64_t num_pairs = 0;    // of all policies
};

// At most so many pairs.
Metrics take_metrics(const StatusSource &source, std::size_t max_pairs);

enum class MetricsFormat { open_metrics, prometheus };
constexpr const char *content_type(MetricsFormat format)
{
    return format == MetricsFormat::open_metrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                                 : "text/plain; version=0.0.4; charset=utf-8";
}

// Labels are names out of the program and numbers, never texts out of messages.
std::string show_metrics(const Metrics &metrics, MetricsFormat format);

} // namespace zeld
