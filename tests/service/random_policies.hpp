// A classifier that follows the documented rules literally, and random policies and
// packets of few values.
#pragma once

#include "policy_notation.hpp"

#include <random>

using service::PacketHeader;

namespace test {

inline bool naive(const zel_match_service_element_t &wanted, const PacketHeader &packet)
{
    return (packet.sip & wanted.sip_mask) == (wanted.sip & wanted.sip_mask) &&
           (packet.dip & wanted.dip_mask) == (wanted.dip & wanted.dip_mask) &&
           (packet.sport & wanted.sport_mask) == (wanted.sport & wanted.sport_mask) &&
           (packet.dport & wanted.dport_mask) == (wanted.dport & wanted.dport_mask) &&
           (wanted.protocol == 0 || packet.protocol == wanted.protocol);
}

inline bool naive(const zel_match_t &match, const PacketHeader &packet)
{
    const auto &param = match.param;
    if (match.op_mode != 0)
        return false;
    switch (match.type) {
    case ZEL_MATCH_TYPE_LABEL:
        return param.label.encap_flag == 0 && param.label.length != 0 && param.label.length <= ZEL_LABEL_SIZE &&
               param.label.length == packet.label_length &&
               memcmp(param.label.label, packet.label, packet.label_length) == 0 &&
               (param.label.eth_type == 0 || param.label.eth_type == packet.ether_type);
    case ZEL_MATCH_TYPE_SERVICE:
        for (const auto *const element : members(param.service))
            if (naive(*element, packet))
                return true;
        return false;
    case ZEL_MATCH_TYPE_SERVICE_ELEMENT:
        return naive(param.service_element, packet);
    case ZEL_MATCH_TYPE_ETH_PROTO:
        return param.eth_proto.type == packet.ether_type;
    case ZEL_MATCH_TYPE_ARP_OPCODE:
        return param.arp_opcode.opcode == packet.arp_opcode;
    case ZEL_MATCH_TYPE_EXP:
        return param.exp.exp == packet.exp;
    case ZEL_MATCH_TYPE_LISP_PROTO:
        return packet.protocol == 17 && packet.dport == param.lisp_proto.udp_port &&
               (param.lisp_proto.destination_rloc == 0 || packet.dip == param.lisp_proto.destination_rloc);
    case ZEL_MATCH_TYPE_LISP_INST:
        return param.lisp_inst.inst_id == packet.lisp_instance;
    default:
        return match.type == ZEL_MATCH_TYPE_NO_PARAM;
    }
}

inline bool naive(const zel_match_grp_t &group, const PacketHeader &packet)
{
    size_t num_matching = 0;
    for (const auto *const match : members(group))
        num_matching += naive(*match, packet) ? 1 : 0;
    return group.op_mode == 0 && ((group.logical_op == service::logical_and && num_matching == group.num_match) ||
                                  (group.logical_op == service::logical_or && num_matching != 0));
}

inline std::optional<uint16_t> naive(const zel_policy_t &policy, const PacketHeader &packet)
{
    bool applies = policy.if_group.num_if == 0;
    for (const auto *const bound : members(policy.if_group))
        applies |= bound->op_mode == 0 && (bound->interface == 0 || bound->interface == packet.interface) &&
                   (bound->vlan == 0 || bound->vlan == packet.vlan) && (bound->vrf == 0 || bound->vrf == packet.vrf);
    if (!applies || policy.op_mode != 0)
        return std::nullopt;
    for (const auto *const pair : members(policy.match_action_pair_group))
        if (pair->op_mode == 0 && naive(pair->match_group, packet))
            return pair->id;
    return std::nullopt;
}

// Draws from few values.
class Dice {
public:
    explicit Dice(uint32_t seed) : random_(seed) {}
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }
    bool rarely() { return below(12) == 0; }
    template <class V> void roll(V &value, uint32_t n) { value = static_cast<V>(below(n)); }
    template <class V> void roll_mask(V &mask) { mask = static_cast<V>(below(3) == 0 ? ~0u : below(4)); }

private:
    std::mt19937 random_;
};

inline void roll(Dice &dice, zel_match_service_element_t &element)
{
    dice.roll(element.sip, 4), dice.roll(element.dip, 4);
    dice.roll(element.sport, 4), dice.roll(element.dport, 4);
    dice.roll_mask(element.sip_mask), dice.roll_mask(element.dip_mask);
    dice.roll_mask(element.sport_mask), dice.roll_mask(element.dport_mask);
    element.protocol = dice.below(2) == 0 ? 0 : 17;
}

inline Owned<zel_match_t> random_match(Dice &dice)
{
    auto match = make<zel_match_t>();
    match->op_mode = dice.rarely() ? dice.below(3) : 0;
    match->type = dice.below(13);
    auto &param = match->param;
    switch (match->type) {
    case ZEL_MATCH_TYPE_LABEL:
        param.label.encap_flag = dice.rarely() ? 1 : 0;
        dice.roll(param.label.eth_type, 2), dice.roll(param.label.length, 3), dice.roll(param.label.label[0], 2);
        break;
    case ZEL_MATCH_TYPE_SERVICE:
        for (uint32_t n = dice.below(4); n != 0; --n) {
            auto element = make<zel_match_service_element_t>();
            roll(dice, *element);
            append(param.service, std::move(element));
        }
        break;
    case ZEL_MATCH_TYPE_SERVICE_ELEMENT:
        roll(dice, param.service_element);
        break;
    case ZEL_MATCH_TYPE_LISP_PROTO:
        dice.roll(param.lisp_proto.udp_port, 4), dice.roll(param.lisp_proto.destination_rloc, 3);
        break;
    case ZEL_MATCH_TYPE_EXP:
        dice.roll(param.exp.exp, 4);
        break;
    case ZEL_MATCH_TYPE_ETH_PROTO:
        dice.roll(param.eth_proto.type, 3);
        break;
    case ZEL_MATCH_TYPE_ARP_OPCODE:
    case ZEL_MATCH_TYPE_LISP_INST:
        dice.roll(param.lisp_inst.inst_id, 3); // where the ARP opcode lies, too
        break;
    default:
        break;
    }
    return match;
}

inline Owned<zel_policy_t> random_policy(Dice &dice, uint32_t most_pairs)
{
    auto policy = make<zel_policy_t>();
    policy->op_mode = dice.rarely() ? dice.below(3) : 0;
    uint16_t match_id = 0;
    for (uint32_t n = dice.below(most_pairs); n != 0; --n) {
        auto pair = make<zel_match_action_pair_t>();
        pair->id = static_cast<uint16_t>(n); // not in the order of the pairs
        pair->op_mode = dice.rarely() ? 1 : 0;
        pair->match_group.op_mode = dice.rarely() ? 1 : 0;
        pair->match_group.logical_op = dice.rarely() ? 2 : dice.below(2);
        for (uint32_t m = dice.below(4); m != 0; --m) {
            append(pair->match_group, random_match(dice));
            pair->match_group.matches[pair->match_group.num_match - 1]->id = match_id++;
        }
        append(policy->match_action_pair_group, std::move(pair));
    }
    for (uint32_t n = dice.below(3); n != 0; --n) {
        auto bound = make<zel_if_element_t>();
        bound->op_mode = dice.rarely() ? 1 : 0;
        dice.roll(bound->interface, 3), dice.roll(bound->vlan, 2), dice.roll(bound->vrf, 2);
        append(policy->if_group, std::move(bound));
    }
    return policy;
}

inline PacketHeader random_packet(Dice &dice)
{
    PacketHeader packet{};
    dice.roll(packet.sip, 4), dice.roll(packet.dip, 4), dice.roll(packet.sport, 4), dice.roll(packet.dport, 4);
    dice.roll(packet.ether_type, 3), dice.roll(packet.exp, 4), dice.roll(packet.arp_opcode, 3);
    dice.roll(packet.lisp_instance, 3), dice.roll(packet.interface, 3), dice.roll(packet.vrf, 2);
    dice.roll(packet.vlan, 2), dice.roll(packet.label_length, 3), dice.roll(packet.label[0], 2);
    packet.protocol = dice.below(2) == 0 ? 6 : 17;
    return packet;
}

} // namespace test
