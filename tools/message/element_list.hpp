// The elements of a TLV array, as they lie in a file or a payload.
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
    std::string source; // what the bytes are called in messages
    std::vector<RawElement> elements;
    uint32_t end = 0;  // the offset behind the last element
    std::string fault; // why there are no further elements, when that is not the array's end
};

// The bytes must outlive the list.
ElementList list_elements(std::string_view bytes, std::string source);

} // namespace tools
