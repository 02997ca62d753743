// The elements of a TLV array in a file.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

struct RawElement {
    uint32_t offset; // of the element in the bytes
    uint16_t id;
    std::span<const uint8_t> value;
};

struct ElementList {
    std::vector<RawElement> elements;
    uint32_t end = 0;  // the offset behind the last element
    std::string fault; // why the list ends before the bytes do; empty when it does not
};

// The bytes must outlive the list.
ElementList list_elements(std::string_view bytes);

} // namespace tools
