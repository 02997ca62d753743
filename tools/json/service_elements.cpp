#include "tools/json/service_elements.hpp"

#include "tools/json/text_values.hpp"
#include "wire/records.hpp"

#include <algorithm>
#include <vector>

namespace tools {

namespace {

using ServiceElement = zel_match_service_element_t;
using Ports = std::vector<MaskedPort>;

MaskedPort sport_of(const ServiceElement &element) { return {element.sport, element.sport_mask}; }
MaskedPort dport_of(const ServiceElement &element) { return {element.dport, element.dport_mask}; }

bool is_same_but_ports(const ServiceElement &a, const ServiceElement &b)
{
    return a.sip == b.sip && a.sip_mask == b.sip_mask && a.dip == b.dip && a.dip_mask == b.dip_mask &&
           a.protocol == b.protocol;
}

// The masked ports of a member when it is a range; otherwise none.
Ports ports_of(const Node *member)
{
    const auto range =
        member != nullptr && member->kind == Node::Kind::text ? read_port_range(member->text) : std::nullopt;
    return range ? expand(*range) : Ports{};
}

void set_ports(const Node &item, std::string_view name, MaskedPort port, Arena &arena)
{
    const auto member = std::ranges::find(item.children, name, &Node::key);
    member->text = arena.copy(std::to_string(port.value) + "/" + show_hex(port.mask, sizeof port.mask));
}

// The longest range that the ports at some distance from each other, from the first on,
// are the masked ports of.  port(i) returns the port number i, or nothing behind the last.
template <class PortAt> std::pair<std::size_t, std::optional<PortRange>> longest_range(PortAt port)
{
    std::size_t best = 1;
    std::optional<PortRange> range = range_of(*port(0));
    if (!range)
        return {best, range};
    PortRange grown = *range;
    Ports ports{*port(0)};
    for (std::size_t i = 1; port(i); ++i) {
        const auto next = range_of(*port(i));
        if (!next || next->first != grown.last + 1)
            break;
        grown.last = next->last;
        ports.push_back(*port(i));
        if (ports == expand(grown)) {
            best = i + 1;
            range = grown;
        }
    }
    return {best, range};
}

} // namespace

bool has_ranges(const zel::wire::Member &sequence) { return *sequence.record == zel::wire::match_service_element; }

std::span<const Node> split_ranges(const Node &item, Arena &arena)
{
    const Ports sports = ports_of(item.find("sport"));
    const Ports dports = ports_of(item.find("dport"));
    if (sports.empty() && dports.empty())
        return {};
    std::vector<Node> items;
    for (std::size_t s = 0; s < std::max<std::size_t>(sports.size(), 1); ++s)
        for (std::size_t d = 0; d < std::max<std::size_t>(dports.size(), 1); ++d) {
            Node &one = items.emplace_back(item);
            one.children = arena.copy(item.children);
            if (!sports.empty())
                set_ports(one, "sport", sports[s], arena);
            if (!dports.empty())
                set_ports(one, "dport", dports[d], arena);
        }
    return arena.copy(items);
}

JoinedElements join_front(std::span<const ServiceElement *const> elements)
{
    const ServiceElement &first = *elements.front();
    const auto [width, dport] = longest_range([&](std::size_t i) -> std::optional<MaskedPort> {
        const bool is_alike =
            i < elements.size() && is_same_but_ports(*elements[i], first) && sport_of(*elements[i]) == sport_of(first);
        return is_alike ? std::optional(dport_of(*elements[i])) : std::nullopt;
    });
    // A row for each source port has the destination ports of the first one.
    const auto is_row = [&, num = width](std::size_t row) {
        if ((row + 1) * num > elements.size())
            return false;
        for (std::size_t i = 0; i < num; ++i) {
            const ServiceElement &element = *elements[row * num + i];
            if (!is_same_but_ports(element, first) || dport_of(element) != dport_of(*elements[i]) ||
                sport_of(element) != sport_of(*elements[row * num]))
                return false;
        }
        return true;
    };
    const auto [height, sport] = longest_range([&, num = width](std::size_t row) -> std::optional<MaskedPort> {
        return is_row(row) ? std::optional(sport_of(*elements[row * num])) : std::nullopt;
    });
    return {width * height, sport, dport};
}

} // namespace tools
