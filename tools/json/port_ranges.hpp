// Ranges of ports as values under masks, which is what a service element holds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

struct PortRange {
    uint16_t first;
    uint16_t last;
    bool operator==(const PortRange &) const = default;
};

// A port p matches when (p & mask) == value.
struct MaskedPort {
    uint16_t value;
    uint16_t mask;
    bool operator==(const MaskedPort &) const = default;
};

// The fewest masked ports that match exactly the ports of a range, in ascending order.
std::vector<MaskedPort> expand(PortRange range);

// The ports that a masked port matches, when they are a range and its value has no bits
// outside of the mask.
std::optional<PortRange> range_of(MaskedPort port);

// "80-90": two different ports, the lower one first.
std::optional<PortRange> read_port_range(std::string_view text);
// "80-90", "80" or "any".
std::string show_port_range(PortRange range);

} // namespace tools
