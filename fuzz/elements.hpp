// The elements of a format, as facts that a mutation can use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz {

struct ElementFacts {
    enum class Role { value, identity, count, start, end, record };

    uint16_t id;
    Role role;
    uint32_t width; // of the value; 0: any
    // identity: the start marker of the object that it identifies; count: of the
    // members that it counts.  start: the end marker.
    uint16_t related;
};

// Of the inputs of the target that is being built: bytes that are not elements,
// then a TLV array of these.
extern const std::size_t array_offset;
const std::vector<ElementFacts> &known_elements();

} // namespace fuzz
