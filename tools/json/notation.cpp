#include "tools/json/notation.hpp"

#include "tools/json/field_rules.hpp"
#include "tools/json/port_ranges.hpp"
#include "tools/json/text_values.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <cstring>

namespace tools {

using namespace zel::wire;

namespace {

std::span<const uint8_t> bytes_of(const Member &field, const void *value)
{
    return {static_cast<const uint8_t *>(value), field.width};
}

std::span<uint8_t> bytes_of(const Member &field, void *value) { return {static_cast<uint8_t *>(value), field.width}; }

// The field has a fixed size; zeros follow the text.
bool read_text(std::string_view written, const Member &field, void *value)
{
    const auto text = read_bytes(written);
    if (!text || text->size() > std::size_t{field.width} - rule_of(field).reserved)
        return false;
    const std::span<uint8_t> bytes = bytes_of(field, value);
    std::ranges::fill(bytes, uint8_t{0});
    std::ranges::copy(*text, bytes.begin());
    return true;
}

bool read_address(std::string_view written, const Member &field, void *value)
{
    const auto address = read_ipv4(written);
    if (address)
        store(field, value, *address);
    return address.has_value();
}

bool read_value(const Node &node, const Member &field, void *value)
{
    const bool is_text = node.kind == Node::Kind::text;
    switch (field.format) {
    case Format::ipv4:
        return is_text && read_address(node.text, field, value);
    case Format::mac:
        return is_text && read_colon_bytes(node.text, bytes_of(field, value));
    case Format::text:
        return is_text && read_text(node.text, field, value);
    case Format::number:
    case Format::hexadecimal:
        break;
    }
    uint32_t number = 0;
    if (!read_named(node, rule_of(field).names, most_in(field), number))
        return false;
    store(field, value, number);
    return true;
}

std::string expected_value(const Member &field)
{
    switch (field.format) {
    case Format::hexadecimal:
        return fmt::format("a number such as \"{}\"", show_hex(0x0800, field.width));
    case Format::ipv4:
        return "an IPv4 address such as \"10.1.2.3\"";
    case Format::mac:
        return "an Ethernet address such as \"00:1b:21:0a:0b:0c\"";
    case Format::text:
        return fmt::format("a text of at most {} bytes, or \"hex:\" and hexadecimal digits",
                           field.width - rule_of(field).reserved);
    case Format::number:
        break;
    }
    return expected_named(rule_of(field).names, most_in(field));
}

// ---- A value and its mask in one text: "10.0.0.0/8".  The value alone stands for a mask
// of ones, "any" for a value and a mask of 0.

std::string show_mask(const Member &field, uint32_t mask)
{
    return field.format == Format::ipv4 ? show_ipv4_mask(mask) : show_hex(mask, field.width);
}

std::optional<uint32_t> read_mask(const Member &field, std::string_view text)
{
    if (field.format == Format::ipv4)
        return read_ipv4_mask(text);
    const auto number = read_number(text);
    return number && *number <= most_in(field) ? std::optional(static_cast<uint32_t>(*number)) : std::nullopt;
}

// A number under a mask is a port, and may be shown as a range of ports.
bool holds_port(const Member &field) { return field.format == Format::number && field.width == sizeof(uint16_t); }

MaskedPort port_of(uint32_t value, uint32_t mask)
{
    return {static_cast<uint16_t>(value), static_cast<uint16_t>(mask)};
}

// A range that takes one mask.
std::optional<MaskedPort> read_port(const Member &field, std::string_view text)
{
    const auto range = holds_port(field) ? read_port_range(text) : std::nullopt;
    const std::vector<MaskedPort> ports = range ? expand(*range) : std::vector<MaskedPort>{};
    return ports.size() == 1 ? std::optional(ports.front()) : std::nullopt;
}

Json show_masked(const Member &field, const Member &mask_field, const void *record)
{
    const void *const value = part(record, field.offset);
    const uint32_t mask = load(mask_field, part(record, mask_field.offset));
    if (mask == 0 && load(field, value) == 0)
        return "any";
    Json shown = show_value(field, value);
    if (mask == most_in(field))
        return shown;
    if (holds_port(field))
        if (const auto range = range_of(port_of(load(field, value), mask)))
            return show_port_range(*range);
    return (shown.is_string() ? shown.get<std::string>() : shown.dump()) + "/" + show_mask(field, mask);
}

bool read_masked(const Node &node, const Member &field, const Member &mask_field, void *record)
{
    void *const value = part(record, field.offset);
    set(mask_field, record, most_in(field));
    if (node.kind != Node::Kind::text)
        return read_value(node, field, value);
    if (node.text == "any") {
        store(field, value, 0);
        set(mask_field, record, 0);
        return true;
    }
    if (const auto port = read_port(field, node.text)) {
        store(field, value, port->value);
        set(mask_field, record, port->mask);
        return true;
    }
    const std::size_t slash = node.text.find('/');
    Node alone;
    alone.kind = Node::Kind::text;
    alone.text = node.text.substr(0, slash);
    if (slash != std::string_view::npos) {
        const auto mask = read_mask(field, node.text.substr(slash + 1));
        if (!mask)
            return false;
        set(mask_field, record, *mask);
    }
    return read_value(alone, field, value);
}

} // namespace

// ---- Numbers

Json show_named(uint32_t number, Names names)
{
    const auto found = std::ranges::find(names, number, &Name::value);
    return found == names.end() ? Json(number) : Json(found->name);
}

bool read_named(const Node &node, Names names, uint32_t most, uint32_t &number)
{
    std::optional<uint64_t> read;
    if (node.kind == Node::Kind::integer) {
        read = node.number;
    } else if (node.kind == Node::Kind::text) {
        const auto found = std::ranges::find(names, node.text, &Name::name);
        read = found == names.end() ? read_number(node.text) : found->value;
    }
    if (!read || *read > most)
        return false;
    number = static_cast<uint32_t>(*read);
    return true;
}

std::string expected_named(Names names, uint32_t most)
{
    std::string text;
    for (const Name &name : names)
        text += fmt::format("\"{}\", ", name.name);
    return fmt::format("{}{}{}an integer from 0 to {}", names.empty() ? "" : "one of ", text,
                       names.empty() ? "" : "or ", most);
}

// By memcpy(), because the values of elements are not aligned.
template <class V> static uint32_t load_as(const void *value)
{
    V number;
    std::memcpy(&number, value, sizeof number);
    return number;
}

uint32_t load(const Member &field, const void *value)
{
    switch (field.width) {
    case sizeof(uint8_t):
        return load_as<uint8_t>(value);
    case sizeof(uint16_t):
        return load_as<uint16_t>(value);
    default:
        return load_as<uint32_t>(value);
    }
}

template <class V> static void store_as(void *value, uint32_t number)
{
    const auto narrow = static_cast<V>(number);
    std::memcpy(value, &narrow, sizeof narrow);
}

void store(const Member &field, void *value, uint32_t number)
{
    switch (field.width) {
    case sizeof(uint8_t):
        return store_as<uint8_t>(value, number);
    case sizeof(uint16_t):
        return store_as<uint16_t>(value, number);
    default:
        return store_as<uint32_t>(value, number);
    }
}

// ---- Fields

Json show_value(const Member &field, const void *value)
{
    switch (field.format) {
    case Format::hexadecimal:
        return show_hex(load(field, value), field.width);
    case Format::ipv4:
        return show_ipv4(load(field, value));
    case Format::mac:
        return show_colon_bytes(bytes_of(field, value));
    case Format::text:
        return show_bytes(bytes_of(field, value));
    case Format::number:
        break;
    }
    return show_named(load(field, value), rule_of(field).names);
}

Json show_field(const Member &field, const void *record)
{
    const Member *const mask = rule_of(field).mask;
    return mask != nullptr ? show_masked(field, *mask, record) : show_value(field, part(record, field.offset));
}

bool read_field(const Node &node, const Member &field, void *record)
{
    const Member *const mask = rule_of(field).mask;
    return mask != nullptr ? read_masked(node, field, *mask, record)
                           : read_value(node, field, part(record, field.offset));
}

std::string expected_of(const Member &field)
{
    std::string alone = expected_value(field);
    if (rule_of(field).mask == nullptr)
        return alone;
    return fmt::format("{}, the same with a mask such as \"{}\",{} or \"any\"", alone,
                       field.format == Format::ipv4 ? "10.0.0.0/8" : "1024/0xfc00",
                       holds_port(field) ? " a range such as \"80-90\" in a service," : "");
}

} // namespace tools
