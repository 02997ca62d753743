// The counters in an answer of the service, as a table or as JSON.
#pragma once

#include "tools/zelctl/connection.hpp"

#include <map>
#include <string>
#include <utility>

namespace zelctl {

struct Counters {
    uint64_t packets;
    uint64_t bytes;
};

// Ordered by policy id, then pair id.
using Statistics = std::map<std::pair<uint16_t, uint16_t>, Counters>;

// Throws NoService when the answer carries no statistics that can be read.
Statistics read_statistics(const Answer &answer);

std::string show_as_json(const Statistics &statistics);

// With rates per second when the statistics of some seconds before are given.
std::string show_as_table(const Statistics &statistics, const Statistics *before = nullptr, double seconds = 0);

} // namespace zelctl
