#include "tools/classify/classifier.hpp"

#include <algorithm>

namespace classify {

using service::PacketHeader;

PacketHeader unpack(const PackedHeader &fields)
{
    PacketHeader packet{};
    packet.sip = static_cast<uint32_t>(fields[0] >> 32);
    packet.dip = static_cast<uint32_t>(fields[0]);
    packet.sport = static_cast<uint16_t>(fields[1] >> 48);
    packet.dport = static_cast<uint16_t>(fields[1] >> 32);
    packet.protocol = static_cast<uint8_t>(fields[1] >> 24);
    packet.exp = static_cast<uint8_t>(fields[1] >> 16);
    packet.ether_type = static_cast<uint16_t>(fields[1]);
    packet.arp_opcode = static_cast<uint32_t>(fields[2] >> 32);
    packet.lisp_instance = static_cast<uint32_t>(fields[2]);
    return packet;
}

bool Classifier::applies_to(const PacketHeader &packet) const
{
    const auto is_any_or = [](auto wanted, auto value) { return wanted == 0 || wanted == value; };
    return !is_bound_ || std::any_of(bindings_.begin(), bindings_.end(), [&](const Binding &binding) {
        return is_any_or(binding.interface, packet.interface) && is_any_or(binding.vlan, packet.vlan) &&
               is_any_or(binding.vrf, packet.vrf);
    });
}

bool Classifier::matches(const Pattern &pattern, const PacketHeader &packet, const PackedHeader &fields) const
{
    return (fields[0] & pattern.mask[0]) == pattern.value[0] && (fields[1] & pattern.mask[1]) == pattern.value[1] &&
           (fields[2] & pattern.mask[2]) == pattern.value[2] &&
           (pattern.label == Pattern::no_label || label_of(packet) == labels_[pattern.label]);
}

bool Classifier::matches(const Alternative &alternative, const PacketHeader &packet, const PackedHeader &fields) const
{
    for (uint32_t i = alternative.patterns.first; i < alternative.patterns.end; ++i)
        if (matches(patterns_[i], packet, fields))
            return true;
    return false;
}

bool Classifier::matches(const Rule &rule, const PacketHeader &packet, const PackedHeader &fields) const
{
    for (uint32_t i = rule.alternatives.first; i < rule.alternatives.end; ++i)
        if (matches(alternatives_[i], packet, fields) != rule.needs_all)
            return !rule.needs_all;
    return rule.needs_all;
}

// Rules are in the order of the pairs.
uint32_t Classifier::first_rule_from(uint32_t pair) const
{
    const auto found = std::lower_bound(rules_.begin(), rules_.end(), pair,
                                        [](const Rule &rule, uint32_t wanted) { return rule.pair < wanted; });
    return static_cast<uint32_t>(found - rules_.begin());
}

uint32_t Classifier::classify(const PacketHeader &packet, const PackedHeader &fields, uint32_t from) const
{
    if (rules_.empty() || !applies_to(packet))
        return none;
    const uint32_t first = from == 0 ? 0 : first_rule_from(from);
    auto best = static_cast<uint32_t>(rules_.size());
    for (const Tuple &tuple : tuples_) {
        if (tuple.first_rule >= best)
            continue;
        const uint32_t bucket = tuple.bucket + bucket_number(fields[0] & tuple.mask, tuple.shift);
        for (uint32_t i = buckets_[bucket]; i < buckets_[bucket + 1] && entries_[i] < best; ++i)
            if (entries_[i] >= first && matches(rules_[entries_[i]], packet, fields))
                best = entries_[i];
    }
    return best < rules_.size() ? rules_[best].pair : none;
}

const char *text_of(Never never)
{
    switch (never) {
    case Never::no:
        return "";
    case Never::policy_mode:
        return "the policy is not active";
    case Never::pair_mode:
        return "the pair is not active";
    case Never::group_mode:
        return "the match group is not active";
    case Never::match_mode:
        return "the match is not active";
    case Never::interfaces:
        return "the policy is bound, and none of its interfaces is active";
    case Never::logical_op:
        return "the logical_op is neither \"and\" nor \"or\"";
    case Never::empty_group:
        return "at least one of its matches has to match, and it has none";
    case Never::access_list:
        return "the service has no ACLs";
    case Never::type:
        return "the match type is not known";
    case Never::tunnel_label:
        return "no packet header has the label of a tunnel";
    case Never::label_length:
        return "a label has 1 to 64 bytes";
    case Never::no_elements:
        return "the service has no elements";
    }
    return "";
}

} // namespace classify
