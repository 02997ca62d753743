// The graphs that are encoded and decoded.
#pragma once

#include "bench/model.hpp"

#include <functional>

namespace bench {

struct Workload {
    std::string name;
    bool is_growth_curve; // a point of one
    std::function<Message()> make;
};

const std::vector<Workload> &workloads();

// Matches and actions, each as often as it occurs: the unit of all results.
std::size_t count_objects(const Message &message);

} // namespace bench
