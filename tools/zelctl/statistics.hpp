// The counters in an answer of the service, as a table or as JSON.
#pragma once

#include "tools/json/notation.hpp"
#include "tools/zelctl/connection.hpp"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zelctl {

struct Counters {
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

// Ordered by policy id, then pair id.
using Statistics = std::map<std::pair<uint16_t, uint16_t>, Counters>;

// Throws NoService when the answer carries no statistics that can be read.
Statistics read_statistics(const Answer &answer);

// A pair's counters, and what they grew by in a second.
struct Row {
    uint16_t policy;
    uint16_t pair;
    Counters now;
    double packet_rate = 0;
    double byte_rate = 0;
};

enum class SortBy : uint8_t { id, packets, bytes, rate };

struct View {
    SortBy sort = SortBy::id;
    bool only_changed = false;
};

// With rates when the statistics of some seconds before are given.
std::vector<Row> make_rows(const Statistics &statistics, const View &view, const Statistics *before = nullptr,
                           double seconds = 0);

tools::Json to_json(const std::vector<Row> &rows, bool has_rates = false);
std::string show_as_table(const std::vector<Row> &rows, bool has_rates = false);

} // namespace zelctl
