#include "tools/zeld/classifier.hpp"

#include "tools/zeld/policy.hpp"

#include <algorithm>
#include <string_view>

namespace zeld {

using service::PacketHeader;

PackedHeader pack(const PacketHeader &packet)
{
    return {addresses(packet.sip, packet.dip),
            transport(packet.sport, packet.dport, packet.protocol, packet.exp, packet.ether_type),
            overlay(packet.arp_opcode, packet.lisp_instance)};
}

bool Classifier::applies_to(const PacketHeader &packet) const
{
    const auto is_any_or = [](auto wanted, auto value) { return wanted == 0 || wanted == value; };
    return !is_bound_ || std::any_of(bindings_.begin(), bindings_.end(), [&](const Binding &binding) {
        return is_any_or(binding.interface, packet.interface) && is_any_or(binding.vlan, packet.vlan) &&
               is_any_or(binding.vrf, packet.vrf);
    });
}

bool Classifier::matches(const Range &patterns, const PacketHeader &packet, const PackedHeader &fields) const
{
    for (uint32_t i = patterns.first; i < patterns.end; ++i) {
        const Pattern &pattern = patterns_[i];
        if ((fields[0] & pattern.mask[0]) != pattern.value[0] || (fields[1] & pattern.mask[1]) != pattern.value[1] ||
            (fields[2] & pattern.mask[2]) != pattern.value[2])
            continue;
        if (pattern.label == no_label)
            return true;
        const std::string_view label(reinterpret_cast<const char *>(packet.label),
                                     std::min<std::size_t>(packet.label_length, sizeof packet.label));
        if (label == labels_[pattern.label])
            return true;
    }
    return false;
}

bool Classifier::matches(const Rule &rule, const PacketHeader &packet, const PackedHeader &fields) const
{
    for (uint32_t i = rule.matches.first; i < rule.matches.end; ++i)
        if (matches(matches_[i], packet, fields) != rule.needs_all)
            return !rule.needs_all;
    return rule.needs_all;
}

const Pair *Classifier::classify(const PacketHeader &packet, const PackedHeader &fields) const
{
    if (rules_.empty() || !applies_to(packet))
        return nullptr;
    auto best = static_cast<uint32_t>(rules_.size());
    for (const Tuple &tuple : tuples_) {
        if (tuple.first_rule >= best)
            continue;
        const uint32_t bucket = tuple.bucket + bucket_number(fields[0] & tuple.mask, tuple.shift);
        for (uint32_t i = buckets_[bucket]; i < buckets_[bucket + 1] && entries_[i] < best; ++i)
            if (matches(rules_[entries_[i]], packet, fields))
                best = entries_[i];
    }
    return best < rules_.size() ? rules_[best].pair : nullptr;
}

} // namespace zeld
