// The notations of single values, as text: addresses, masks, numbers, bytes.
// Readers answer nothing for what they do not understand.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tools {

// Decimal, or hexadecimal behind "0x"; digits and nothing else.
std::optional<uint64_t> read_number(std::string_view text);

// Hexadecimal behind "0x", two digits a byte.
std::string show_hex(uint64_t number, std::size_t bytes);

// "10.1.2.3" is 0x0a010203.
std::optional<uint32_t> read_ipv4(std::string_view text);
std::string show_ipv4(uint32_t address);

// A mask behind an address: "8", or "255.0.0.0" when its ones are not all in front.
std::optional<uint32_t> read_ipv4_mask(std::string_view text);
std::string show_ipv4_mask(uint32_t mask);

// The mask with so many ones in front, of a number of so many bits.
constexpr uint32_t prefix_mask(unsigned ones, unsigned bits = 32)
{
    const uint64_t all = (uint64_t{1} << bits) - 1;
    return static_cast<uint32_t>(all & ~(all >> ones));
}

// "00:1b:21:0a:0b:0c".  Fills the bytes and returns true, or leaves them.
bool read_colon_bytes(std::string_view text, std::span<uint8_t> bytes);
std::string show_colon_bytes(std::span<const uint8_t> bytes);

// Text where the bytes are text, otherwise "hex:" and two digits a byte.  Zeros at
// the end are not shown: fields of a fixed size are filled up with them.
std::string show_bytes(std::span<const uint8_t> bytes);
std::optional<std::string> read_bytes(std::string_view text);

// The bytes without the zeros at their end.
std::span<const uint8_t> without_padding(std::span<const uint8_t> bytes);

} // namespace tools
