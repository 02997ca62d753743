#include "tools/json/text_values.hpp"

#include "tools/text/utf8.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>

namespace tools {
namespace {

constexpr std::string_view hex_prefix = "hex:";

std::optional<uint64_t> read_digits(std::string_view digits, int base)
{
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
    if (error != std::errc{} || end != digits.data() + digits.size())
        return std::nullopt;
    return number;
}

// Removes the part before the first separator, or the whole text, and returns it.
std::string_view take(std::string_view &text, char separator)
{
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

// Printable text: control characters of one byte make it bytes.
bool is_text(std::string_view text)
{
    while (!text.empty()) {
        uint32_t character = 0;
        const std::size_t length = decode_utf8(text, character);
        if (length == 0 || character < 0x20 || character == 0x7f)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

} // namespace

std::optional<uint64_t> read_number(std::string_view text)
{
    if (text.starts_with("0x") || text.starts_with("0X"))
        return read_digits(text.substr(2), 16);
    return read_digits(text, 10);
}

std::string show_hex(uint64_t number, std::size_t bytes) { return fmt::format("0x{:0{}x}", number, 2 * bytes); }

std::optional<uint32_t> read_ipv4(std::string_view text)
{
    uint32_t address = 0;
    if (std::ranges::count(text, '.') != 3)
        return std::nullopt;
    for (int i = 0; i < 4; ++i) {
        const std::string_view digits = take(text, '.');
        const auto byte = read_digits(digits, 10);
        if (!byte || *byte > 255 || digits.size() > 3)
            return std::nullopt;
        address = address << 8 | static_cast<uint32_t>(*byte);
    }
    return address;
}

std::string show_ipv4(uint32_t address)
{
    return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 0xff, address >> 8 & 0xff, address & 0xff);
}

std::optional<uint32_t> read_ipv4_mask(std::string_view text)
{
    if (text.find('.') != std::string_view::npos)
        return read_ipv4(text);
    const auto ones = read_digits(text, 10);
    if (!ones || *ones > 32)
        return std::nullopt;
    return prefix_mask(static_cast<unsigned>(*ones));
}

std::string show_ipv4_mask(uint32_t mask)
{
    const auto ones = static_cast<unsigned>(std::countl_one(mask));
    return mask == prefix_mask(ones) ? std::to_string(ones) : show_ipv4(mask);
}

bool read_colon_bytes(std::string_view text, std::span<uint8_t> bytes)
{
    if (text.size() != 3 * bytes.size() - 1)
        return false;
    std::string read;
    while (!text.empty()) {
        const std::string_view digits = take(text, ':');
        const auto byte = read_digits(digits, 16);
        if (!byte || digits.size() != 2)
            return false;
        read.push_back(static_cast<char>(*byte));
    }
    if (read.size() != bytes.size())
        return false;
    std::ranges::copy(read, bytes.begin());
    return true;
}

std::string show_colon_bytes(std::span<const uint8_t> bytes)
{
    std::string text;
    for (const uint8_t byte : bytes)
        text += fmt::format("{}{:02x}", text.empty() ? "" : ":", byte);
    return text;
}

std::span<const uint8_t> without_padding(std::span<const uint8_t> bytes)
{
    while (!bytes.empty() && bytes.back() == 0)
        bytes = bytes.first(bytes.size() - 1);
    return bytes;
}

std::string show_bytes(std::span<const uint8_t> bytes)
{
    bytes = without_padding(bytes);
    std::string text(bytes.begin(), bytes.end());
    if (is_text(text) && !text.starts_with(hex_prefix))
        return text;
    text = hex_prefix;
    for (const uint8_t byte : bytes)
        text += fmt::format("{:02x}", byte);
    return text;
}

std::optional<std::string> read_bytes(std::string_view text)
{
    if (!text.starts_with(hex_prefix))
        return std::string(text);
    text.remove_prefix(hex_prefix.size());
    std::string bytes;
    for (; !text.empty(); text.remove_prefix(2)) {
        const auto byte = text.size() < 2 ? std::nullopt : read_digits(text.substr(0, 2), 16);
        if (!byte)
            return std::nullopt;
        bytes.push_back(static_cast<char>(*byte));
    }
    return bytes;
}

} // namespace tools
