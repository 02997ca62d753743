// Counts of requests by kind and result, and how long they took.
#pragma once

#include "tools/observe/request.hpp"
#include "tools/records/service_protocol.hpp"

#include <algorithm>
#include <array>

namespace zeld {

// Of requests of one kind, from their arrival to their answer.
struct Latency {
    // Upper bounds in ns; the last bucket has none.
    static constexpr std::array<uint64_t, 15> bounds{
        10'000,     25'000,     50'000,      100'000,     250'000,       500'000,       1'000'000,     2'500'000,
        10'000'000, 25'000'000, 100'000'000, 250'000'000, 1'000'000'000, 5'000'000'000, 10'000'000'000};

    std::array<uint64_t, bounds.size() + 1> counts{};
    uint64_t sum_ns = 0;

    void add(uint64_t ns)
    {
        ++counts[static_cast<std::size_t>(std::ranges::lower_bound(bounds, ns) - bounds.begin())];
        sum_ns += ns;
    }
};

struct Tally {
    static constexpr std::size_t num_errors = service::error_denied + 1;

    std::array<std::array<uint64_t, num_errors>, observe::num_kinds> requests{}; // by kind and error
    std::array<Latency, observe::num_kinds> latencies{};
    uint64_t received_bytes = 0;
    uint64_t sent_bytes = 0;

    void add(uint32_t kind, uint32_t error, uint64_t ns)
    {
        ++requests[kind][std::min<std::size_t>(error, num_errors - 1)];
        latencies[kind].add(ns);
    }
    uint64_t num_requests() const;
    uint64_t num_refusals() const;
};

} // namespace zeld
