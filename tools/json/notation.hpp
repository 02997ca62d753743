// The notations in which values are written in JSON.  A notation has
//
//   show(value)         what to write
//   read(node, value)   false: the node is not in this notation
//   expected<V>()       what would have been, for a message
//
// Which field has which notation is said in field_notation.hpp.
#pragma once

#include "tools/json/json_document.hpp"
#include "tools/json/text_values.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/core.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <type_traits>

namespace tools {

using Json = nlohmann::ordered_json; // members stay in the order of the records

// Numbers are integers, or texts where hexadecimal digits are wanted.
struct Number {
    template <class V> static Json show(V value) { return value; }

    template <class V> static bool read(const Node &node, V &value)
    {
        std::optional<uint64_t> number;
        if (node.kind == Node::Kind::integer)
            number = node.number;
        else if (node.kind == Node::Kind::text)
            number = read_number(node.text);
        if (!number || *number > std::numeric_limits<V>::max())
            return false;
        value = static_cast<V>(*number);
        return true;
    }

    template <class V> static std::string expected()
    {
        return fmt::format("an integer from 0 to {}", std::numeric_limits<V>::max());
    }

    template <class V> static std::string show_mask(V mask) { return show_hex(mask, sizeof mask); }
    template <class V> static std::optional<V> read_mask(std::string_view text)
    {
        const auto number = read_number(text);
        return number && *number <= std::numeric_limits<V>::max() ? std::optional(static_cast<V>(*number))
                                                                  : std::nullopt;
    }
    static constexpr std::string_view masked_example = "1024/0xfc00";
};

// Numbers that people know in hexadecimal.
struct Hex : Number {
    template <class V> static Json show(V value) { return show_hex(value, sizeof value); }
    template <class V> static std::string expected()
    {
        return fmt::format("a number such as \"{}\"", show_hex(0x0800, sizeof(V)));
    }
};

struct Ipv4 {
    static Json show(uint32_t address) { return show_ipv4(address); }

    static bool read(const Node &node, uint32_t &address)
    {
        const auto read = node.kind == Node::Kind::text ? read_ipv4(node.text) : std::nullopt;
        address = read.value_or(address);
        return read.has_value();
    }

    template <class V> static std::string expected() { return "an IPv4 address such as \"10.1.2.3\""; }

    static std::string show_mask(uint32_t mask) { return show_ipv4_mask(mask); }
    template <class V> static std::optional<uint32_t> read_mask(std::string_view text) { return read_ipv4_mask(text); }
    static constexpr std::string_view masked_example = "10.0.0.0/8";
};

struct Mac {
    template <std::size_t N> static Json show(const uint8_t (&bytes)[N]) { return show_colon_bytes(bytes); }
    template <std::size_t N> static bool read(const Node &node, uint8_t (&bytes)[N])
    {
        return node.kind == Node::Kind::text && read_colon_bytes(node.text, bytes);
    }
    template <class V> static std::string expected() { return "an Ethernet address such as \"00:1b:21:0a:0b:0c\""; }
};

// Texts in a field of fixed size, of which the last Reserved bytes stay 0.
template <std::size_t Reserved> struct Text {
    static constexpr std::size_t reserved = Reserved;

    template <std::size_t N> static Json show(const uint8_t (&bytes)[N]) { return show_bytes(bytes); }

    template <std::size_t N> static bool read(const Node &node, uint8_t (&bytes)[N])
    {
        const auto text = node.kind == Node::Kind::text ? read_bytes(node.text) : std::nullopt;
        if (!text || text->size() > N - Reserved)
            return false;
        std::ranges::fill(bytes, uint8_t{0});
        std::ranges::copy(*text, bytes);
        return true;
    }

    template <class V> static std::string expected()
    {
        return fmt::format("a text of at most {} bytes, or \"hex:\" and hexadecimal digits", sizeof(V) - Reserved);
    }
};

// Numbers that have names.  Numbers without one are written as they are.
struct Name {
    uint32_t value;
    std::string_view name;
};

template <const auto &Table> struct Names : Number {
    template <class V> static Json show(V value)
    {
        const auto found = std::ranges::find(Table, uint32_t{value}, &Name::value);
        return found == std::end(Table) ? Json(value) : Json(found->name);
    }

    template <class V> static bool read(const Node &node, V &value)
    {
        const auto found = std::ranges::find(Table, node.text, &Name::name);
        if (node.kind != Node::Kind::text || found == std::end(Table))
            return Number::read(node, value);
        value = static_cast<V>(found->value);
        return true;
    }

    template <class V> static std::string expected()
    {
        std::string text = "one of ";
        for (const Name &name : Table)
            text += fmt::format("\"{}\", ", name.name);
        return text + "or " + Number::expected<V>();
    }
};

// A value and its mask in one text: "10.0.0.0/8"; the value alone when all of it
// counts, "any" when nothing does.
template <class N> struct Masked {
    template <class V> static Json show(V value, V mask)
    {
        if (value == 0 && mask == 0)
            return "any";
        const Json shown = N::show(value);
        if (mask == std::numeric_limits<V>::max())
            return shown;
        return (shown.is_string() ? shown.template get<std::string>() : shown.dump()) + "/" + N::show_mask(mask);
    }

    template <class V> static bool read(const Node &node, V &value, V &mask)
    {
        Node alone = node;
        mask = std::numeric_limits<V>::max();
        if (node.kind == Node::Kind::text) {
            if (node.text == "any") {
                value = mask = 0;
                return true;
            }
            const std::size_t slash = node.text.find('/');
            alone.text = node.text.substr(0, slash);
            if (slash != std::string::npos) {
                const auto read_mask = N::template read_mask<V>(std::string_view(node.text).substr(slash + 1));
                if (!read_mask)
                    return false;
                mask = *read_mask;
            }
        }
        return N::read(alone, value);
    }

    template <class V> static std::string expected()
    {
        return fmt::format("{}, the same with a mask such as \"{}\", or \"any\"", N::template expected<V>(),
                           N::masked_example);
    }
};

} // namespace tools
