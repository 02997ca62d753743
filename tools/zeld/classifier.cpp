#include "tools/zeld/classifier.hpp"

#include "tools/zeld/graph.hpp"

#include <algorithm>

namespace zeld {

namespace {

using service::PacketHeader;

constexpr uint8_t protocol_udp = 17;

uint64_t addresses(uint32_t sip, uint32_t dip) { return uint64_t{sip} << 32 | dip; }

uint64_t transport(uint16_t sport, uint16_t dport, uint8_t protocol, uint8_t exp, uint16_t ether_type)
{
    return uint64_t{sport} << 48 | uint64_t{dport} << 32 | uint64_t{protocol} << 24 | uint64_t{exp} << 16 | ether_type;
}

uint64_t overlay(uint32_t arp_opcode, uint32_t lisp_instance) { return uint64_t{arp_opcode} << 32 | lisp_instance; }

// All bits of a field: the mask of a pattern that compares the whole field.
template <class V> constexpr V all = static_cast<V>(~V{0});

template <class R> bool is_active(const R &record) { return record.op_mode == service::op_mode_active; }

} // namespace

PackedHeader pack(const PacketHeader &packet)
{
    return {addresses(packet.sip, packet.dip),
            transport(packet.sport, packet.dport, packet.protocol, packet.exp, packet.ether_type),
            overlay(packet.arp_opcode, packet.lisp_instance)};
}

// Translates a policy's graph. A match that never matches becomes a clause without
// patterns; a pair that never matches becomes no rule.
class Compiler {
public:
    Compiler(Classifier &out, const zel_policy_t &policy) : out_(out)
    {
        add_bindings(policy.if_group);
        if (!is_active(policy))
            return;
        uint32_t position = 0;
        for (const zel_match_action_pair_t *const pair : members(policy.match_action_pair_group))
            add_pair(*pair, position++);
    }

private:
    using Pattern = Classifier::Pattern;

    void add_bindings(const zel_if_group_t &group)
    {
        out_.is_bound_ = group.num_if != 0;
        for (const zel_if_element_t *const element : members(group))
            if (is_active(*element))
                out_.bindings_.push_back({element->interface, element->vrf, element->vlan});
    }

    void add_pair(const zel_match_action_pair_t &pair, uint32_t position)
    {
        const zel_match_grp_t &group = pair.match_group;
        if (!is_active(pair) || !is_active(group))
            return;
        const uint32_t first = num_clauses();
        switch (group.logical_op) {
        case service::logical_and:
            for (const zel_match_t *const match : members(group))
                add_clause([&] { add_match(*match); });
            break;
        case service::logical_or:
            add_clause([&] {
                for (const zel_match_t *const match : members(group))
                    add_match(*match);
            });
            break;
        default:
            return; // an unknown logical_op never matches
        }
        out_.rules_.push_back({position, first, num_clauses()});
    }

    template <class AddPatterns> void add_clause(const AddPatterns &add_patterns)
    {
        const uint32_t first = num_patterns();
        add_patterns();
        out_.clauses_.push_back({first, num_patterns()});
    }

    uint32_t num_clauses() const { return static_cast<uint32_t>(out_.clauses_.size()); }
    uint32_t num_patterns() const { return static_cast<uint32_t>(out_.patterns_.size()); }

    void add(const PackedHeader &value, const PackedHeader &mask, uint32_t label = Classifier::no_label)
    {
        Pattern pattern{value, mask, label};
        for (std::size_t i = 0; i < mask.size(); ++i)
            pattern.value[i] &= mask[i];
        out_.patterns_.push_back(pattern);
    }

    // Adds the patterns of one match; none when it never matches.
    void add_match(const zel_match_t &match)
    {
        const zel_match_param_t &param = match.param;
        if (!is_active(match))
            return;
        switch (match.type) {
        case ZEL_MATCH_TYPE_LABEL:
            return add_label(param.label);
        case ZEL_MATCH_TYPE_SERVICE:
            for (const zel_match_service_element_t *const element : members(param.service))
                add_service_element(*element);
            return;
        case ZEL_MATCH_TYPE_SERVICE_ELEMENT:
            return add_service_element(param.service_element);
        case ZEL_MATCH_TYPE_ETH_PROTO:
            return add({0, transport(0, 0, 0, 0, param.eth_proto.type), 0},
                       {0, transport(0, 0, 0, 0, all<uint16_t>), 0});
        case ZEL_MATCH_TYPE_ARP_OPCODE:
            return add({0, 0, overlay(param.arp_opcode.opcode, 0)}, {0, 0, overlay(all<uint32_t>, 0)});
        case ZEL_MATCH_TYPE_EXP:
            return add({0, transport(0, 0, 0, param.exp.exp, 0), 0}, {0, transport(0, 0, 0, all<uint8_t>, 0), 0});
        case ZEL_MATCH_TYPE_LISP_PROTO:
            return add_lisp_proto(param.lisp_proto);
        case ZEL_MATCH_TYPE_LISP_INST:
            return add({0, 0, overlay(0, param.lisp_inst.inst_id)}, {0, 0, overlay(0, all<uint32_t>)});
        case ZEL_MATCH_TYPE_NO_PARAM:
            return add({}, {});
        default:
            return; // the service has no ACLs, and other types are unknown
        }
    }

    void add_service_element(const zel_match_service_element_t &element)
    {
        const uint8_t protocol_mask = element.protocol == 0 ? 0 : all<uint8_t>;
        add({addresses(element.sip, element.dip), transport(element.sport, element.dport, element.protocol, 0, 0), 0},
            {addresses(element.sip_mask, element.dip_mask),
             transport(element.sport_mask, element.dport_mask, protocol_mask, 0, 0), 0});
    }

    // Compares the tunnel's port, and its endpoint unless that is 0.
    void add_lisp_proto(const zel_match_lisp_proto_t &lisp)
    {
        const uint32_t rloc_mask = lisp.destination_rloc == 0 ? 0 : all<uint32_t>;
        add({addresses(0, lisp.destination_rloc), transport(0, lisp.udp_port, protocol_udp, 0, 0), 0},
            {addresses(0, rloc_mask), transport(0, all<uint16_t>, all<uint8_t>, 0, 0), 0});
    }

    // A packet header does not contain a tunnel, so a label with encap_flag never matches.
    void add_label(const zel_match_label_t &label)
    {
        if (label.encap_flag != 0 || label.length == 0 || label.length > ZEL_LABEL_SIZE)
            return;
        const uint16_t type_mask = label.eth_type == 0 ? 0 : all<uint16_t>;
        out_.labels_.emplace_back(reinterpret_cast<const char *>(label.label), label.length);
        add({0, transport(0, 0, 0, 0, label.eth_type), 0}, {0, transport(0, 0, 0, 0, type_mask), 0},
            static_cast<uint32_t>(out_.labels_.size() - 1));
    }

    Classifier &out_;
};

Classifier::Classifier(const zel_policy_t &policy) { Compiler(*this, policy); }

bool Classifier::applies_to(const PacketHeader &packet) const
{
    const auto is_any_or = [](auto wanted, auto value) { return wanted == 0 || wanted == value; };
    return !is_bound_ || std::any_of(bindings_.begin(), bindings_.end(), [&](const Binding &binding) {
        return is_any_or(binding.interface, packet.interface) && is_any_or(binding.vlan, packet.vlan) &&
               is_any_or(binding.vrf, packet.vrf);
    });
}

bool Classifier::matches(const Clause &clause, const PacketHeader &packet, const PackedHeader &fields) const
{
    for (uint32_t i = clause.first_pattern; i < clause.end_pattern; ++i) {
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
    for (uint32_t i = rule.first_clause; i < rule.end_clause; ++i)
        if (!matches(clauses_[i], packet, fields))
            return false;
    return true;
}

std::optional<uint32_t> Classifier::classify(const PacketHeader &packet, const PackedHeader &fields) const
{
    if (!applies_to(packet))
        return std::nullopt;
    for (const Rule &rule : rules_)
        if (matches(rule, packet, fields))
            return rule.pair;
    return std::nullopt;
}

} // namespace zeld
