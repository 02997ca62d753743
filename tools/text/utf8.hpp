// Characters in UTF-8.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <string_view>

namespace tools {

// The length of the character at the front of a text that is not empty; 0 when there is
// none: an overlong encoding, a surrogate and a code point above the largest are none.
inline std::size_t decode_utf8(std::string_view text, uint32_t &character)
{
    const auto byte = [&](std::size_t i) { return static_cast<uint8_t>(text[i]); };
    const auto ones = static_cast<std::size_t>(std::countl_one(byte(0)));
    character = byte(0);
    if (ones == 0)
        return 1;
    if (ones < 2 || ones > 4 || text.size() < ones)
        return 0;
    character &= 0x7fu >> ones;
    for (std::size_t i = 1; i < ones; ++i) {
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
        character = character << 6 | (byte(i) & 0x3fu);
    }
    constexpr std::array<uint32_t, 5> least{0, 0, 0x80, 0x800, 0x10000};
    const bool is_surrogate = character >= 0xd800 && character < 0xe000;
    return character < least.at(ones) || is_surrogate || character > 0x10ffff ? 0 : ones;
}

} // namespace tools
