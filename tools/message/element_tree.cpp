#include "tools/message/element_tree.hpp"

#include "tools/json/notation.hpp"
#include "tools/json/text_values.hpp"
#include "tools/text/safe_text.hpp"
#include "wire/elements.hpp"

#include <fmt/core.h>

#include <algorithm>

namespace tools {
namespace {

using namespace zel::wire;

constexpr std::size_t most_bytes_shown = 16;

std::string show_raw(std::span<const uint8_t> bytes)
{
    std::string text;
    for (const uint8_t byte : bytes.first(std::min(bytes.size(), most_bytes_shown)))
        text += fmt::format("{:02x}", byte);
    return bytes.size() > most_bytes_shown ? text + "..." : text;
}

// A value in its notation.  A name or an IPv4 address is followed by the number.
std::string show(const Member &member, const void *value)
{
    const Json shown = show_value(member, value);
    if (shown.is_string() && (member.format == Format::number || member.format == Format::ipv4))
        return fmt::format("{} ({})", shown.get<std::string>(), show_hex(load(member, value), member.width));
    return safe_json(shown.dump());
}

std::string describe_value(std::span<const uint8_t> value, const Member &member)
{
    const char *const name = member.kind == Kind::sequence ? member.count : member.name;
    if (value.size() != member.width)
        return fmt::format("{} {} [{}]  ! should have {} bytes", name, show_raw(value), member.text, member.width);
    return fmt::format("{} {} [{}]", name, show(member, value.data()), member.text);
}

std::string describe(const RawElement &raw, const Element &element)
{
    switch (element.kind) {
    case Element::Kind::start:
        return fmt::format("{} {{", element.record->name);
    case Element::Kind::end:
        return fmt::format("}} {}", element.record->name);
    case Element::Kind::value:
        return describe_value(raw.value, *element.member);
    case Element::Kind::unknown:
        break;
    }
    return fmt::format("unknown {}", show_raw(raw.value));
}

} // namespace

std::string show_element_tree(const ElementList &list)
{
    std::string tree = fmt::format("{:>8} {:>6} {:>6}\n", "offset", "id", "length");
    std::size_t depth = 0;
    for (const RawElement &raw : list.elements) {
        const Element element = zel::wire::element(raw.id);
        if (element.kind == Element::Kind::end && depth > 0)
            --depth;
        tree += fmt::format("{:>8} {:>6} {:>6}  {:{}}{}\n", raw.offset, raw.id, raw.value.size(), "", 2 * depth,
                            describe(raw, element));
        if (element.kind == Element::Kind::start)
            ++depth;
    }
    if (!list.fault.empty())
        tree += fmt::format("{:>8}  ! {}\n", list.end, list.fault);
    return tree;
}

} // namespace tools
