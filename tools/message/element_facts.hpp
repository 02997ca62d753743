// What the wire description says of an element id.
#pragma once

#include "tools/json/notation.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tools {

struct ElementFacts {
    enum class Kind { unknown, start, end, value };

    Kind kind = Kind::unknown;
    std::string_view record{}; // "match"
    std::string_view field{};  // "pre_match_id"
    std::string_view text{};   // "match pre_match_id": what failure reports call it
    std::size_t width = 0;
    std::string (*show)(std::span<const uint8_t> value) = nullptr; // of exactly that width
};

// Kind::unknown for ids that no record has.
const ElementFacts &facts_of_element(uint16_t id);

} // namespace tools
