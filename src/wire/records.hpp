// The wire format, described once: every record's markers, fields, ids, widths
// (the members' own), field texts and contained records, in the order written.
//
// The ids have gaps and the texts have oddities (95 after 91, "arp opcode",
// "exp"); peers of other versions and field tooling know them as they are.
// 3, 8, 93, 94, 109 and 146 to 156 are never written in a request.
//
// A new field goes where the encoder is to write it, with the release that brings
// it as its last argument: messages of older peers then stay valid without it.
#pragma once

#include "wire/description.hpp"
#include "zel.h"

namespace zel::wire {

// Every marker is written with these texts.
inline constexpr const char *start_marker_text = "ZEL_MAT_TYPE tlv struct start";
inline constexpr const char *end_marker_text = "ZEL_MAT_TYPE tlv struct end";

constexpr Member field(uint16_t id, std::size_t offset, std::size_t width, const char *name, const char *text,
                       Format format = Format::number, uint8_t since = 1)
{
    return {.kind = Kind::field,
            .id = id,
            .offset = static_cast<uint16_t>(offset),
            .width = static_cast<uint16_t>(width),
            .format = format,
            .since = since,
            .name = name,
            .text = text};
}

// A description names C members; their offsets, widths and names follow.
#define ZEL_FIELD(id, R, member, ...) field(id, offsetof(R, member), sizeof(R::member), #member, __VA_ARGS__)
#define ZEL_EMBEDDED(R, member, contained)                                                                             \
    {                                                                                                                  \
        .kind = Kind::embedded, .offset = offsetof(R, member), .name = #member, .record = &(contained)                 \
    }
#define ZEL_SEQUENCE(element, R, number, pointers, contained, says)                                                    \
    {                                                                                                                  \
        .kind = Kind::sequence, .id = element, .offset = offsetof(R, number), .width = sizeof(R::number),              \
        .array = offsetof(R, pointers), .name = #pointers, .count = #number, .text = says, .record = &(contained)      \
    }
#define ZEL_CHOICE(R, selector, selectable)                                                                            \
    {                                                                                                                  \
        .kind = Kind::choice, .offset = offsetof(R, selector), .width = sizeof(R::selector), .name = #selector,        \
        .options = selectable                                                                                          \
    }
#define ZEL_OPTION(value, R, path, name, contained)                                                                    \
    {                                                                                                                  \
        value, offsetof(R, path), name, &(contained)                                                                   \
    }
#define ZEL_RECORD(object, start, end)                                                                                 \
#object, "zel_parse_" #object "_from_tlv", start, end, sizeof(zel_##object##_t), object##_members

// clang-format off

inline constexpr Member kob_header_members[] = {
    ZEL_FIELD(4, zel_kob_header_t, api_type, "kob_header api_type"),
    ZEL_FIELD(5, zel_kob_header_t, app_type, "kob_header app_type"),
    ZEL_FIELD(6, zel_kob_header_t, policy_id, "kob_header policy_id"),
    ZEL_FIELD(7, zel_kob_header_t, op_code, "kob_header op_code"),
};
inline constexpr Record kob_header{ZEL_RECORD(kob_header, TLV_ZEL_KOB_HEADER, 2), ZEL_MAT_TYPE_NONE, "TLV_ZEL_KOB_HEADER", "header"};

inline constexpr Member stat_request_entry_members[] = {
    ZEL_FIELD(140, zel_stat_request_entry_t, interface, "stat_req_ent interface"),
    ZEL_FIELD(141, zel_stat_request_entry_t, vlan, "stat_req_ent vlan"),
    ZEL_FIELD(142, zel_stat_request_entry_t, vrf, "stat_req_ent vrf"),
    ZEL_FIELD(143, zel_stat_request_entry_t, policy_id, "stat_req_ent policy_id"),
    ZEL_FIELD(144, zel_stat_request_entry_t, match_action_pair_id, "stat_req_ent match_action_pair_id"),
    ZEL_FIELD(145, zel_stat_request_entry_t, flag, "stat_req_ent flag"),
};
inline constexpr Record stat_request_entry{ZEL_RECORD(stat_request_entry, TLV_ZEL_STAT_REQ_ENTRY, 139),
    ZEL_MAT_TYPE_STAT_REQUEST_ENTRY, "TLV_ZEL_STAT_REQ_ENTRY", "query"};

inline constexpr Member stat_request_members[] = {
    ZEL_SEQUENCE(137, zel_stat_request_t, num_requests, requests, stat_request_entry, "stat_req num_requests"),
};
inline constexpr Record stat_request{ZEL_RECORD(stat_request, TLV_ZEL_STAT_REQUEST, 136),
    ZEL_MAT_TYPE_STAT_REQUEST, "TLV_ZEL_STAT_REQUEST", "statistics request"};


// Actions and what they carry.
inline constexpr Member action_set_vrf_members[] = {
    ZEL_FIELD(161, zel_action_set_vrf_t, vrf, "action_set_vrf vrf"),
};
inline constexpr Record action_set_vrf{ZEL_RECORD(action_set_vrf, 159, 160)};

inline constexpr Member action_nat_rewrite_members[] = {
    ZEL_FIELD(87, zel_action_nat_rewrite_t, src_ip, "action_nat_rewrite src ip", Format::ipv4),
    ZEL_FIELD(88, zel_action_nat_rewrite_t, dst_ip, "action_nat_rewrite dst ip", Format::ipv4),
    ZEL_FIELD(89, zel_action_nat_rewrite_t, src_port, "action_nat_rewrite src port"),
    ZEL_FIELD(90, zel_action_nat_rewrite_t, dst_port, "action_nat_rewrite dst port"),
};
inline constexpr Record action_nat_rewrite{ZEL_RECORD(action_nat_rewrite, 85, 86)};

inline constexpr Member l3_redirect_ipv4_members[] = {
    ZEL_FIELD(75, zel_l3_redirect_ipv4_t, vrf, "redirect param l3ipv4 vrf"),
    ZEL_FIELD(76, zel_l3_redirect_ipv4_t, r_table_id, "redirect param l3ipv4 r_table_id"),
    ZEL_FIELD(77, zel_l3_redirect_ipv4_t, sip, "redirect param l3ipv4 sip", Format::ipv4),
    ZEL_FIELD(78, zel_l3_redirect_ipv4_t, dip, "redirect param l3ipv4 dip", Format::ipv4),
};
inline constexpr Record l3_redirect_ipv4{ZEL_RECORD(l3_redirect_ipv4, 73, 74)};

inline constexpr Member l2_redirect_ipv4_members[] = {
    ZEL_FIELD(67, zel_l2_redirect_ipv4_t, vrf, "redirect param l2ipv4 vrf"),
    ZEL_FIELD(68, zel_l2_redirect_ipv4_t, r_table_id, "redirect param l2ipv4 r_table_id"),
    ZEL_FIELD(69, zel_l2_redirect_ipv4_t, dip, "redirect param l2ipv4 dip", Format::ipv4),
    ZEL_FIELD(70, zel_l2_redirect_ipv4_t, smac, "redirect param l2ipv4 smac", Format::mac),
    ZEL_FIELD(71, zel_l2_redirect_ipv4_t, dmac, "redirect param l2ipv4 dmac", Format::mac),
    ZEL_FIELD(72, zel_l2_redirect_ipv4_t, dest_if, "redirect param l2ipv4 dest_if"),
};
inline constexpr Record l2_redirect_ipv4{ZEL_RECORD(l2_redirect_ipv4, 65, 66)};

inline constexpr Member action_label_param_members[] = {
    ZEL_FIELD(58, zel_action_label_param_t, label_length, "label_param: label_length"),
    ZEL_FIELD(59, zel_action_label_param_t, label, "label_param: label", Format::text),
};
inline constexpr Record action_label_param{ZEL_RECORD(action_label_param, 56, 57)};

inline constexpr Option action_param_redirect_options[] = {
    ZEL_OPTION(ZEL_REDIRECT_TYPE_L2_IPV4, zel_action_param_redirect_t, l2_ipv4, "l2_ipv4", l2_redirect_ipv4),
    ZEL_OPTION(ZEL_REDIRECT_TYPE_L3_IPV4, zel_action_param_redirect_t, l3_ipv4, "l3_ipv4", l3_redirect_ipv4),
};
inline constexpr Member action_param_redirect_members[] = {
    ZEL_FIELD(81, zel_action_param_redirect_t, type, "action_param_redirect type"),
    ZEL_FIELD(82, zel_action_param_redirect_t, encap_flag, "action_param_redirect encap_flag"),
    ZEL_FIELD(83, zel_action_param_redirect_t, insert_label, "action_param_redirect insert_label"),
    ZEL_EMBEDDED(zel_action_param_redirect_t, label_param, action_label_param),
    ZEL_FIELD(84, zel_action_param_redirect_t, etype, "action_param_redirect etype", Format::hexadecimal),
    ZEL_CHOICE(zel_action_param_redirect_t, type, action_param_redirect_options),
};
inline constexpr Record action_param_redirect{ZEL_RECORD(action_param_redirect, 79, 80)};

inline constexpr Member action_lisp_decapsulation_members[] = {
    ZEL_FIELD(95, zel_action_lisp_decapsulation_t, if_index, "lisp_param: IF_INDEX"),
};
inline constexpr Record action_lisp_decapsulation{ZEL_RECORD(action_lisp_decapsulation, 91, 92)};

inline constexpr Option action_options[] = {
    ZEL_OPTION(ZEL_ACTION_TYPE_REDIRECT, zel_action_t, param.redirect, "redirect", action_param_redirect),
    ZEL_OPTION(ZEL_ACTION_TYPE_NAT_REWRITE, zel_action_t, param.nat_rewrite, "nat_rewrite", action_nat_rewrite),
    ZEL_OPTION(ZEL_ACTION_TYPE_SET_VRF, zel_action_t, param.set_vrf, "set_vrf", action_set_vrf),
    ZEL_OPTION(ZEL_ACTION_TYPE_LISP_DECAPSULATION, zel_action_t, param.lisp_decapsulation, "lisp_decapsulation", action_lisp_decapsulation),
};
inline constexpr Member action_members[] = {
    ZEL_FIELD(98, zel_action_t, op_mode, "action op_mode"),
    ZEL_FIELD(99, zel_action_t, id, "action id"),
    ZEL_FIELD(100, zel_action_t, type, "action type"),
    ZEL_CHOICE(zel_action_t, type, action_options),
};
inline constexpr Record action{ZEL_RECORD(action, TLV_ZEL_ACTION, 97),
    ZEL_MAT_TYPE_ACTION, "TLV_ZEL_ACTION", "action", {offsetof(zel_action_t, id), offsetof(zel_action_t, cached)}};

inline constexpr Member action_grp_members[] = {
    ZEL_FIELD(62, zel_action_grp_t, id, "action_group id"),
    ZEL_FIELD(63, zel_action_grp_t, op_mode, "action_group op_mode"),
    ZEL_SEQUENCE(64, zel_action_grp_t, num_action, actions, action, "action_group num_action"),
};
inline constexpr Record action_grp{ZEL_RECORD(action_grp, TLV_ZEL_ACTION_GROUP, 61),
    ZEL_MAT_TYPE_ACTION_GROUP, "TLV_ZEL_ACTION_GROUP", "action group"};


// Interfaces.
inline constexpr Member if_element_members[] = {
    ZEL_FIELD(130, zel_if_element_t, op_mode, "if_ele op_mode"),
    ZEL_FIELD(131, zel_if_element_t, direction, "if_ele direction"),
    ZEL_FIELD(132, zel_if_element_t, interface, "if_ele interface"),
    ZEL_FIELD(133, zel_if_element_t, vlan, "if_ele vlan"),
    ZEL_FIELD(134, zel_if_element_t, vrf, "if_ele vrf"),
};
inline constexpr Record if_element{ZEL_RECORD(if_element, TLV_ZEL_IF_ELEMENT, 129),
    ZEL_MAT_TYPE_IF_ELEMENT, "TLV_ZEL_IF_ELEMENT", "interface"};

inline constexpr Member if_group_members[] = {
    ZEL_SEQUENCE(127, zel_if_group_t, num_if, if_elements, if_element, "if_group num_if"),
};
inline constexpr Record if_group{ZEL_RECORD(if_group, TLV_ZEL_IF_GROUP, 126),
    ZEL_MAT_TYPE_IF_GROUP, "TLV_ZEL_IF_GROUP", "interface group"};


// Matches and what they carry.
inline constexpr Member match_lisp_inst_members[] = {
    ZEL_FIELD(55, zel_match_lisp_inst_t, inst_id, "inst id"),
};
inline constexpr Record match_lisp_inst{ZEL_RECORD(match_lisp_inst, 53, 54)};

inline constexpr Member match_lisp_proto_members[] = {
    ZEL_FIELD(51, zel_match_lisp_proto_t, udp_port, "udp port"),
    ZEL_FIELD(52, zel_match_lisp_proto_t, destination_rloc, "destination rloc", Format::ipv4),
};
inline constexpr Record match_lisp_proto{ZEL_RECORD(match_lisp_proto, 49, 50)};

inline constexpr Member match_exp_members[] = {
    ZEL_FIELD(48, zel_match_exp_t, exp, "exp"),
};
inline constexpr Record match_exp{ZEL_RECORD(match_exp, 46, 47)};

inline constexpr Member match_arp_opcode_members[] = {
    ZEL_FIELD(45, zel_match_arp_opcode_t, opcode, "arp opcode"),
};
inline constexpr Record match_arp_opcode{ZEL_RECORD(match_arp_opcode, 43, 44)};

inline constexpr Member match_eth_proto_members[] = {
    ZEL_FIELD(42, zel_match_eth_proto_t, type, "eth_proto type", Format::hexadecimal),
};
inline constexpr Record match_eth_proto{ZEL_RECORD(match_eth_proto, 40, 41)};

inline constexpr Member match_service_element_members[] = {
    ZEL_FIELD(11, zel_match_service_element_t, sip, "service ele: sip", Format::ipv4),
    ZEL_FIELD(12, zel_match_service_element_t, sip_mask, "service ele: sip_mask", Format::ipv4),
    ZEL_FIELD(13, zel_match_service_element_t, dip, "service ele: dip", Format::ipv4),
    ZEL_FIELD(14, zel_match_service_element_t, dip_mask, "service ele: dip_mask", Format::ipv4),
    ZEL_FIELD(15, zel_match_service_element_t, sport, "service ele: sport"),
    ZEL_FIELD(16, zel_match_service_element_t, sport_mask, "service ele: sport_mask", Format::hexadecimal),
    ZEL_FIELD(17, zel_match_service_element_t, dport, "service ele: dport"),
    ZEL_FIELD(18, zel_match_service_element_t, dport_mask, "service ele: dport_mask", Format::hexadecimal),
    ZEL_FIELD(19, zel_match_service_element_t, protocol, "service ele: protocol"),
};
inline constexpr Record match_service_element{ZEL_RECORD(match_service_element, TLV_ZEL_MATCH_SERVICE_ELE, 10),
    ZEL_MAT_TYPE_MATCH_SERVICE_ELEMENT, "TLV_ZEL_MATCH_SERVICE_ELE", "service element"};

inline constexpr Member match_service_members[] = {
    ZEL_SEQUENCE(22, zel_match_service_t, num_elements, elements, match_service_element, "service param: num_elements"),
};
inline constexpr Record match_service{ZEL_RECORD(match_service, 20, 21)};

inline constexpr Member match_label_members[] = {
    ZEL_FIELD(34, zel_match_label_t, eth_type, "label eth_type", Format::hexadecimal),
    ZEL_FIELD(35, zel_match_label_t, encap_flag, "label encap_flag"),
    ZEL_FIELD(36, zel_match_label_t, encap_tunnel_sip, "label encap_tunnel_sip", Format::ipv4),
    ZEL_FIELD(37, zel_match_label_t, encap_tunnel_dip, "label encap_tunnel_dip", Format::ipv4),
    ZEL_FIELD(38, zel_match_label_t, length, "label length"),
    ZEL_FIELD(39, zel_match_label_t, label, "label label", Format::text),
};
inline constexpr Record match_label{ZEL_RECORD(match_label, 32, 33)};

inline constexpr Member match_acl_members[] = {
    ZEL_FIELD(31, zel_match_acl_t, acl, "match acl", Format::text),
};
inline constexpr Record match_acl{ZEL_RECORD(match_acl, 29, 30)};

inline constexpr Option match_options[] = {
    ZEL_OPTION(ZEL_MATCH_TYPE_ACL, zel_match_t, param.acl, "acl", match_acl),
    ZEL_OPTION(ZEL_MATCH_TYPE_LABEL, zel_match_t, param.label, "label", match_label),
    ZEL_OPTION(ZEL_MATCH_TYPE_SERVICE, zel_match_t, param.service, "service", match_service),
    ZEL_OPTION(ZEL_MATCH_TYPE_SERVICE_ELEMENT, zel_match_t, param.service_element, "service_element", match_service_element),
    ZEL_OPTION(ZEL_MATCH_TYPE_ETH_PROTO, zel_match_t, param.eth_proto, "eth_proto", match_eth_proto),
    ZEL_OPTION(ZEL_MATCH_TYPE_ARP_OPCODE, zel_match_t, param.arp_opcode, "arp_opcode", match_arp_opcode),
    ZEL_OPTION(ZEL_MATCH_TYPE_EXP, zel_match_t, param.exp, "exp", match_exp),
    ZEL_OPTION(ZEL_MATCH_TYPE_LISP_PROTO, zel_match_t, param.lisp_proto, "lisp_proto", match_lisp_proto),
    ZEL_OPTION(ZEL_MATCH_TYPE_LISP_INST, zel_match_t, param.lisp_inst, "lisp_inst", match_lisp_inst),
};
inline constexpr Member match_members[] = {
    ZEL_FIELD(25, zel_match_t, op_mode, "match op_mode"),
    ZEL_FIELD(26, zel_match_t, id, "match id"),
    ZEL_FIELD(27, zel_match_t, pre_match_id, "match pre_match_id"),
    ZEL_FIELD(28, zel_match_t, type, "match type"),
    ZEL_CHOICE(zel_match_t, type, match_options),
};
inline constexpr Record match{ZEL_RECORD(match, TLV_ZEL_MATCH, 24),
    ZEL_MAT_TYPE_MATCH, "TLV_ZEL_MATCH", "match", {offsetof(zel_match_t, id), offsetof(zel_match_t, cached)}};

inline constexpr Member match_grp_members[] = {
    ZEL_FIELD(103, zel_match_grp_t, id, "match_group id"),
    ZEL_FIELD(104, zel_match_grp_t, op_mode, "match_group op_mode"),
    ZEL_FIELD(105, zel_match_grp_t, logical_op, "match_group logical_op"),
    ZEL_SEQUENCE(106, zel_match_grp_t, num_match, matches, match, "match_group num_match"),
};
inline constexpr Record match_grp{ZEL_RECORD(match_grp, TLV_ZEL_MATCH_GROUP, 102),
    ZEL_MAT_TYPE_MATCH_GROUP, "TLV_ZEL_MATCH_GROUP", "match group"};


// Pairs and policies.
inline constexpr Member match_action_pair_members[] = {
    ZEL_FIELD(110, zel_match_action_pair_t, id, "match_action_pair id"),
    ZEL_FIELD(111, zel_match_action_pair_t, op_mode, "match_action_pair op_mode"),
    ZEL_FIELD(112, zel_match_action_pair_t, pre_pair_id, "match_action_pair pre_pair_id"),
    ZEL_EMBEDDED(zel_match_action_pair_t, match_group, match_grp),
    ZEL_EMBEDDED(zel_match_action_pair_t, action_group, action_grp),
};
inline constexpr Record match_action_pair{ZEL_RECORD(match_action_pair, TLV_ZEL_MATCH_ACTION_PAIR, 108),
    ZEL_MAT_TYPE_MATCH_ACTION_PAIR, "TLV_ZEL_MATCH_ACTION_PAIR", "pair"};

inline constexpr Member match_action_pair_grp_members[] = {
    ZEL_SEQUENCE(115, zel_match_action_pair_grp_t, num_pair, pairs, match_action_pair, "match_action_pair_group num_pair"),
};
inline constexpr Record match_action_pair_grp{ZEL_RECORD(match_action_pair_grp, TLV_ZEL_MATCH_ACTION_PAIR_GROUP, 114),
    ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP, "TLV_ZEL_MATCH_ACTION_PAIR_GROUP", "pair group"};

inline constexpr Member policy_members[] = {
    ZEL_FIELD(118, zel_policy_t, version, "policy version"),
    ZEL_FIELD(119, zel_policy_t, id, "policy id"),
    ZEL_FIELD(120, zel_policy_t, op_mode, "policy op_mode"),
    ZEL_FIELD(121, zel_policy_t, app_type, "policy app_type"),
    ZEL_EMBEDDED(zel_policy_t, match_action_pair_group, match_action_pair_grp),
    ZEL_EMBEDDED(zel_policy_t, if_group, if_group),
};
inline constexpr Record policy{ZEL_RECORD(policy, TLV_ZEL_POLICY, 117),
    ZEL_MAT_TYPE_POLICY, "TLV_ZEL_POLICY", "policy"};

inline constexpr Member policy_list_members[] = {
    ZEL_SEQUENCE(124, zel_policy_list_t, num_policy, policies, policy, "policy_list num_policy"),
};
inline constexpr Record policy_list{ZEL_RECORD(policy_list, TLV_ZEL_POLICY_LIST, 123),
    ZEL_MAT_TYPE_POLICY_LIST, "TLV_ZEL_POLICY_LIST", "policy list"};

// A reference stands between the markers of a match or action that the message has
// carried in full before.  A reader knows it by its first element.
struct Reference {
    uint32_t mat_type;
    uint16_t mat_id;
};
inline constexpr Member reference_members[] = {
    ZEL_FIELD(158, Reference, mat_type, "mat type"),
    ZEL_FIELD(157, Reference, mat_id, "mat id"),
};
inline constexpr Record reference{"reference", "", 0, 0, sizeof(Reference), reference_members};
inline constexpr const Member &reference_mat_type = reference_members[0];
inline constexpr const Member &reference_mat_id = reference_members[1];

// clang-format on

#undef ZEL_FIELD
#undef ZEL_EMBEDDED
#undef ZEL_SEQUENCE
#undef ZEL_CHOICE
#undef ZEL_OPTION
#undef ZEL_RECORD

} // namespace zel::wire
