// Service elements and the ranges of ports that they stand for: an item of JSON with
// ranges is as many elements as the ranges have masks, and these are shown as one item.
#pragma once

#include "tools/json/document.hpp"
#include "tools/json/port_ranges.hpp"
#include "wire/description.hpp"
#include "zel.h"

#include <span>

namespace tools {

// Whether the members of a sequence are service elements.
bool has_ranges(const zel::wire::Member &sequence);

// The items that an item with ranges stands for, in the order of the source ports, then of
// the destination ports.  None when it has no range.  They live as long as the arena.
std::span<const Node> split_ranges(const Node &item, Arena &arena);

// Elements that are the result of one split.
struct JoinedElements {
    std::size_t number; // of the elements
    // Nothing when the port has a mask that is no range; all elements then have it.
    std::optional<PortRange> sport;
    std::optional<PortRange> dport;
};

// The longest front part of the elements that split_ranges() makes of one item.
JoinedElements join_front(std::span<const zel_match_service_element_t *const> elements);

} // namespace tools
