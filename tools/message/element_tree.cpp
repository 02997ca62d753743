#include "tools/message/element_tree.hpp"

#include "tools/message/element_facts.hpp"

#include <fmt/core.h>

#include <algorithm>

namespace tools {
namespace {

constexpr std::size_t most_bytes_shown = 16;

std::string show_raw(std::span<const uint8_t> bytes)
{
    std::string text;
    for (const uint8_t byte : bytes.first(std::min(bytes.size(), most_bytes_shown)))
        text += fmt::format("{:02x}", byte);
    return bytes.size() > most_bytes_shown ? text + "..." : text;
}

std::string describe(const RawElement &element, const ElementFacts &facts)
{
    using Kind = ElementFacts::Kind;
    switch (facts.kind) {
    case Kind::start:
        return fmt::format("{} {{", facts.record);
    case Kind::end:
        return fmt::format("}} {}", facts.record);
    case Kind::value:
        if (element.value.size() != facts.width)
            return fmt::format("{} {} [{}]  ! should have {} bytes", facts.field, show_raw(element.value), facts.text,
                               facts.width);
        return fmt::format("{} {} [{}]", facts.field, facts.show(element.value), facts.text);
    default:
        return fmt::format("unknown {}", show_raw(element.value));
    }
}

} // namespace

std::string show_element_tree(const ElementList &list)
{
    std::string tree = fmt::format("{:>8} {:>6} {:>6}\n", "offset", "id", "length");
    std::size_t depth = 0;
    for (const RawElement &element : list.elements) {
        const ElementFacts &facts = facts_of_element(element.id);
        if (facts.kind == ElementFacts::Kind::end && depth > 0)
            --depth;
        tree += fmt::format("{:>8} {:>6} {:>6}  {:{}}{}\n", element.offset, element.id, element.value.size(), "",
                            2 * depth, describe(element, facts));
        if (facts.kind == ElementFacts::Kind::start)
            ++depth;
    }
    if (!list.fault.empty())
        tree += fmt::format("{:>8}  ! {}\n", list.end, list.fault);
    return tree;
}

} // namespace tools
