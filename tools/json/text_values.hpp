// Single values as text: addresses, masks, numbers, bytes.  Readers return nothing for
// a text in another notation.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tools {

// Decimal digits, or "0x" and hexadecimal digits; no sign and no blanks.
std::optional<uint64_t> read_number(std::string_view text);

// "0x" and two hexadecimal digits a byte.
std::string show_hex(uint64_t number, std::size_t bytes);

// "10.1.2.3" is 0x0a010203.
std::optional<uint32_t> read_ipv4(std::string_view text);
std::string show_ipv4(uint32_t address);

// The mask of an address: a prefix length such as "8", or a mask such as "255.0.255.0"
// that is no prefix.
std::optional<uint32_t> read_ipv4_mask(std::string_view text);
std::string show_ipv4_mask(uint32_t mask);

// The mask of a number of bits with ones in front and zeros behind.
constexpr uint32_t prefix_mask(unsigned ones, unsigned bits = 32)
{
    const uint64_t all = (uint64_t{1} << bits) - 1;
    return static_cast<uint32_t>(all & ~(all >> ones));
}

// "00:1b:21:0a:0b:0c".  Leaves the bytes unchanged and returns false for another text.
bool read_colon_bytes(std::string_view text, std::span<uint8_t> bytes);
std::string show_colon_bytes(std::span<const uint8_t> bytes);

// Bytes that are printable UTF-8 as text, others as "hex:" and two digits a byte.  Zeros
// at the end are left out, because they fill up fields of fixed size.
std::string show_bytes(std::span<const uint8_t> bytes);
std::optional<std::string> read_bytes(std::string_view text);

// The bytes without the zeros at their end.
std::span<const uint8_t> without_padding(std::span<const uint8_t> bytes);

} // namespace tools
