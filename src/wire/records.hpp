// The wire format, described once: every record's markers, fields, ids, widths
// (the members' own), field texts and contained records, in the order written.
//
// The ids have gaps and the texts have oddities (95 after 91, "arp opcode",
// "exp"); peers of other versions and field tooling know them as they are.
// 3, 8, 93, 94, 109 and 146 to 156 are never written in a request.
#pragma once

#include "wire/wire.hpp"
#include "zel.h"

#include <tuple>
#include <type_traits>

namespace zel {

// Every marker is written with these texts.
inline constexpr const char *start_marker_text = "ZEL_MAT_TYPE tlv struct start";
inline constexpr const char *end_marker_text = "ZEL_MAT_TYPE tlv struct end";

// clang-format off

template <> struct Wire<zel_kob_header_t> : Record<TLV_ZEL_KOB_HEADER, 2> {
    static constexpr FixedString name = "kob_header";
    static constexpr std::tuple members{
        Field<4, &zel_kob_header_t::api_type>{"kob_header api_type"},
        Field<5, &zel_kob_header_t::app_type>{"kob_header app_type"},
        Field<6, &zel_kob_header_t::policy_id>{"kob_header policy_id"},
        Field<7, &zel_kob_header_t::op_code>{"kob_header op_code"},
    };
};

template <> struct Wire<zel_stat_request_entry_t> : Record<TLV_ZEL_STAT_REQ_ENTRY, 139> {
    static constexpr FixedString name = "stat_request_entry";
    static constexpr std::tuple members{
        Field<140, &zel_stat_request_entry_t::interface>{"stat_req_ent interface"},
        Field<141, &zel_stat_request_entry_t::vlan>{"stat_req_ent vlan"},
        Field<142, &zel_stat_request_entry_t::vrf>{"stat_req_ent vrf"},
        Field<143, &zel_stat_request_entry_t::policy_id>{"stat_req_ent policy_id"},
        Field<144, &zel_stat_request_entry_t::match_action_pair_id>{"stat_req_ent match_action_pair_id"},
        Field<145, &zel_stat_request_entry_t::flag>{"stat_req_ent flag"},
    };
};

template <> struct Wire<zel_stat_request_t> : Record<TLV_ZEL_STAT_REQUEST, 136> {
    static constexpr FixedString name = "stat_request";
    static constexpr std::tuple members{
        Sequence<137, &zel_stat_request_t::num_requests, &zel_stat_request_t::requests>{"stat_req num_requests"},
    };
};

// Actions and what they carry.

template <> struct Wire<zel_action_set_vrf_t> : Record<159, 160> {
    static constexpr FixedString name = "action_set_vrf";
    static constexpr std::tuple members{
        Field<161, &zel_action_set_vrf_t::vrf>{"action_set_vrf vrf"},
    };
};

template <> struct Wire<zel_action_nat_rewrite_t> : Record<85, 86> {
    static constexpr FixedString name = "action_nat_rewrite";
    static constexpr std::tuple members{
        Field<87, &zel_action_nat_rewrite_t::src_ip>{"action_nat_rewrite src ip"},
        Field<88, &zel_action_nat_rewrite_t::dst_ip>{"action_nat_rewrite dst ip"},
        Field<89, &zel_action_nat_rewrite_t::src_port>{"action_nat_rewrite src port"},
        Field<90, &zel_action_nat_rewrite_t::dst_port>{"action_nat_rewrite dst port"},
    };
};

template <> struct Wire<zel_l3_redirect_ipv4_t> : Record<73, 74> {
    static constexpr FixedString name = "l3_redirect_ipv4";
    static constexpr std::tuple members{
        Field<75, &zel_l3_redirect_ipv4_t::vrf>{"redirect param l3ipv4 vrf"},
        Field<76, &zel_l3_redirect_ipv4_t::r_table_id>{"redirect param l3ipv4 r_table_id"},
        Field<77, &zel_l3_redirect_ipv4_t::sip>{"redirect param l3ipv4 sip"},
        Field<78, &zel_l3_redirect_ipv4_t::dip>{"redirect param l3ipv4 dip"},
    };
};

template <> struct Wire<zel_l2_redirect_ipv4_t> : Record<65, 66> {
    static constexpr FixedString name = "l2_redirect_ipv4";
    static constexpr std::tuple members{
        Field<67, &zel_l2_redirect_ipv4_t::vrf>{"redirect param l2ipv4 vrf"},
        Field<68, &zel_l2_redirect_ipv4_t::r_table_id>{"redirect param l2ipv4 r_table_id"},
        Field<69, &zel_l2_redirect_ipv4_t::dip>{"redirect param l2ipv4 dip"},
        Field<70, &zel_l2_redirect_ipv4_t::smac>{"redirect param l2ipv4 smac"},
        Field<71, &zel_l2_redirect_ipv4_t::dmac>{"redirect param l2ipv4 dmac"},
        Field<72, &zel_l2_redirect_ipv4_t::dest_if>{"redirect param l2ipv4 dest_if"},
    };
};

template <> struct Wire<zel_action_label_param_t> : Record<56, 57> {
    static constexpr FixedString name = "action_label_param";
    static constexpr std::tuple members{
        Field<58, &zel_action_label_param_t::label_length>{"label_param: label_length"},
        Field<59, &zel_action_label_param_t::label>{"label_param: label"},
    };
};

template <> struct Wire<zel_action_param_redirect_t> : Record<79, 80> {
    static constexpr FixedString name = "action_param_redirect";
    static constexpr std::tuple members{
        Field<81, &zel_action_param_redirect_t::type>{"action_param_redirect type"},
        Field<82, &zel_action_param_redirect_t::encap_flag>{"action_param_redirect encap_flag"},
        Field<83, &zel_action_param_redirect_t::insert_label>{"action_param_redirect insert_label"},
        Embedded<&zel_action_param_redirect_t::label_param>{},
        Field<84, &zel_action_param_redirect_t::etype>{"action_param_redirect etype"},
        Choice<&zel_action_param_redirect_t::type,
            Option<ZEL_REDIRECT_TYPE_L2_IPV4, &zel_action_param_redirect_t::l2_ipv4>,
            Option<ZEL_REDIRECT_TYPE_L3_IPV4, &zel_action_param_redirect_t::l3_ipv4>>{},
    };
};

template <> struct Wire<zel_action_lisp_decapsulation_t> : Record<91, 92> {
    static constexpr FixedString name = "action_lisp_decapsulation";
    static constexpr std::tuple members{
        Field<95, &zel_action_lisp_decapsulation_t::if_index>{"lisp_param: IF_INDEX"},
    };
};

template <uint32_t Type, auto Param> using ActionParam = Option<Type, &zel_action_t::param, Param>;

template <> struct Wire<zel_action_t> : Record<TLV_ZEL_ACTION, 97> {
    static constexpr FixedString name = "action";
    static constexpr std::tuple members{
        Field<98, &zel_action_t::op_mode>{"action op_mode"},
        Field<99, &zel_action_t::id>{"action id"},
        Field<100, &zel_action_t::type>{"action type"},
        Choice<&zel_action_t::type,
            ActionParam<ZEL_ACTION_TYPE_REDIRECT, &zel_action_param_t::redirect>,
            ActionParam<ZEL_ACTION_TYPE_NAT_REWRITE, &zel_action_param_t::nat_rewrite>,
            ActionParam<ZEL_ACTION_TYPE_SET_VRF, &zel_action_param_t::set_vrf>,
            ActionParam<ZEL_ACTION_TYPE_LISP_DECAPSULATION, &zel_action_param_t::lisp_decapsulation>>{},
    };
};

template <> struct Wire<zel_action_grp_t> : Record<TLV_ZEL_ACTION_GROUP, 61> {
    static constexpr FixedString name = "action_grp";
    static constexpr std::tuple members{
        Field<62, &zel_action_grp_t::id>{"action_group id"},
        Field<63, &zel_action_grp_t::op_mode>{"action_group op_mode"},
        Sequence<64, &zel_action_grp_t::num_action, &zel_action_grp_t::actions>{"action_group num_action"},
    };
};

// Interfaces.

template <> struct Wire<zel_if_element_t> : Record<TLV_ZEL_IF_ELEMENT, 129> {
    static constexpr FixedString name = "if_element";
    static constexpr std::tuple members{
        Field<130, &zel_if_element_t::op_mode>{"if_ele op_mode"},
        Field<131, &zel_if_element_t::direction>{"if_ele direction"},
        Field<132, &zel_if_element_t::interface>{"if_ele interface"},
        Field<133, &zel_if_element_t::vlan>{"if_ele vlan"},
        Field<134, &zel_if_element_t::vrf>{"if_ele vrf"},
    };
};

template <> struct Wire<zel_if_group_t> : Record<TLV_ZEL_IF_GROUP, 126> {
    static constexpr FixedString name = "if_group";
    static constexpr std::tuple members{
        Sequence<127, &zel_if_group_t::num_if, &zel_if_group_t::if_elements>{"if_group num_if"},
    };
};

// Matches and what they carry.

template <> struct Wire<zel_match_lisp_inst_t> : Record<53, 54> {
    static constexpr FixedString name = "match_lisp_inst";
    static constexpr std::tuple members{
        Field<55, &zel_match_lisp_inst_t::inst_id>{"inst id"},
    };
};

template <> struct Wire<zel_match_lisp_proto_t> : Record<49, 50> {
    static constexpr FixedString name = "match_lisp_proto";
    static constexpr std::tuple members{
        Field<51, &zel_match_lisp_proto_t::udp_port>{"udp port"},
        Field<52, &zel_match_lisp_proto_t::destination_rloc>{"destination rloc"},
    };
};

template <> struct Wire<zel_match_exp_t> : Record<46, 47> {
    static constexpr FixedString name = "match_exp";
    static constexpr std::tuple members{
        Field<48, &zel_match_exp_t::exp>{"exp"},
    };
};

template <> struct Wire<zel_match_arp_opcode_t> : Record<43, 44> {
    static constexpr FixedString name = "match_arp_opcode";
    static constexpr std::tuple members{
        Field<45, &zel_match_arp_opcode_t::opcode>{"arp opcode"},
    };
};

template <> struct Wire<zel_match_eth_proto_t> : Record<40, 41> {
    static constexpr FixedString name = "match_eth_proto";
    static constexpr std::tuple members{
        Field<42, &zel_match_eth_proto_t::type>{"eth_proto type"},
    };
};

template <> struct Wire<zel_match_service_element_t> : Record<TLV_ZEL_MATCH_SERVICE_ELE, 10> {
    static constexpr FixedString name = "match_service_element";
    static constexpr std::tuple members{
        Field<11, &zel_match_service_element_t::sip>{"service ele: sip"},
        Field<12, &zel_match_service_element_t::sip_mask>{"service ele: sip_mask"},
        Field<13, &zel_match_service_element_t::dip>{"service ele: dip"},
        Field<14, &zel_match_service_element_t::dip_mask>{"service ele: dip_mask"},
        Field<15, &zel_match_service_element_t::sport>{"service ele: sport"},
        Field<16, &zel_match_service_element_t::sport_mask>{"service ele: sport_mask"},
        Field<17, &zel_match_service_element_t::dport>{"service ele: dport"},
        Field<18, &zel_match_service_element_t::dport_mask>{"service ele: dport_mask"},
        Field<19, &zel_match_service_element_t::protocol>{"service ele: protocol"},
    };
};

template <> struct Wire<zel_match_service_t> : Record<20, 21> {
    static constexpr FixedString name = "match_service";
    static constexpr std::tuple members{
        Sequence<22, &zel_match_service_t::num_elements, &zel_match_service_t::elements>{"service param: num_elements"},
    };
};

template <> struct Wire<zel_match_label_t> : Record<32, 33> {
    static constexpr FixedString name = "match_label";
    static constexpr std::tuple members{
        Field<34, &zel_match_label_t::eth_type>{"label eth_type"},
        Field<35, &zel_match_label_t::encap_flag>{"label encap_flag"},
        Field<36, &zel_match_label_t::encap_tunnel_sip>{"label encap_tunnel_sip"},
        Field<37, &zel_match_label_t::encap_tunnel_dip>{"label encap_tunnel_dip"},
        Field<38, &zel_match_label_t::length>{"label length"},
        Field<39, &zel_match_label_t::label>{"label label"},
    };
};

template <> struct Wire<zel_match_acl_t> : Record<29, 30> {
    static constexpr FixedString name = "match_acl";
    static constexpr std::tuple members{
        Field<31, &zel_match_acl_t::acl>{"match acl"},
    };
};

template <uint32_t Type, auto Param> using MatchParam = Option<Type, &zel_match_t::param, Param>;

template <> struct Wire<zel_match_t> : Record<TLV_ZEL_MATCH, 24> {
    static constexpr FixedString name = "match";
    static constexpr std::tuple members{
        Field<25, &zel_match_t::op_mode>{"match op_mode"},
        Field<26, &zel_match_t::id>{"match id"},
        Field<27, &zel_match_t::pre_match_id>{"match pre_match_id"},
        Field<28, &zel_match_t::type>{"match type"},
        Choice<&zel_match_t::type,
            MatchParam<ZEL_MATCH_TYPE_ACL, &zel_match_param_t::acl>,
            MatchParam<ZEL_MATCH_TYPE_LABEL, &zel_match_param_t::label>,
            MatchParam<ZEL_MATCH_TYPE_SERVICE, &zel_match_param_t::service>,
            MatchParam<ZEL_MATCH_TYPE_SERVICE_ELEMENT, &zel_match_param_t::service_element>,
            MatchParam<ZEL_MATCH_TYPE_ETH_PROTO, &zel_match_param_t::eth_proto>,
            MatchParam<ZEL_MATCH_TYPE_ARP_OPCODE, &zel_match_param_t::arp_opcode>,
            MatchParam<ZEL_MATCH_TYPE_EXP, &zel_match_param_t::exp>,
            MatchParam<ZEL_MATCH_TYPE_LISP_PROTO, &zel_match_param_t::lisp_proto>,
            MatchParam<ZEL_MATCH_TYPE_LISP_INST, &zel_match_param_t::lisp_inst>>{},
    };
};

template <> struct Wire<zel_match_grp_t> : Record<TLV_ZEL_MATCH_GROUP, 102> {
    static constexpr FixedString name = "match_grp";
    static constexpr std::tuple members{
        Field<103, &zel_match_grp_t::id>{"match_group id"},
        Field<104, &zel_match_grp_t::op_mode>{"match_group op_mode"},
        Field<105, &zel_match_grp_t::logical_op>{"match_group logical_op"},
        Sequence<106, &zel_match_grp_t::num_match, &zel_match_grp_t::matches>{"match_group num_match"},
    };
};

// Pairs and policies.

template <> struct Wire<zel_match_action_pair_t> : Record<TLV_ZEL_MATCH_ACTION_PAIR, 108> {
    static constexpr FixedString name = "match_action_pair";
    static constexpr std::tuple members{
        Field<110, &zel_match_action_pair_t::id>{"match_action_pair id"},
        Field<111, &zel_match_action_pair_t::op_mode>{"match_action_pair op_mode"},
        Field<112, &zel_match_action_pair_t::pre_pair_id>{"match_action_pair pre_pair_id"},
        Embedded<&zel_match_action_pair_t::match_group>{},
        Embedded<&zel_match_action_pair_t::action_group>{},
    };
};

template <> struct Wire<zel_match_action_pair_grp_t> : Record<TLV_ZEL_MATCH_ACTION_PAIR_GROUP, 114> {
    static constexpr FixedString name = "match_action_pair_grp";
    static constexpr std::tuple members{
        Sequence<115, &zel_match_action_pair_grp_t::num_pair, &zel_match_action_pair_grp_t::pairs>{"match_action_pair_group num_pair"},
    };
};

template <> struct Wire<zel_policy_t> : Record<TLV_ZEL_POLICY, 117> {
    static constexpr FixedString name = "policy";
    static constexpr std::tuple members{
        Field<118, &zel_policy_t::version>{"policy version"},
        Field<119, &zel_policy_t::id>{"policy id"},
        Field<120, &zel_policy_t::op_mode>{"policy op_mode"},
        Field<121, &zel_policy_t::app_type>{"policy app_type"},
        Embedded<&zel_policy_t::match_action_pair_group>{},
        Embedded<&zel_policy_t::if_group>{},
    };
};

template <> struct Wire<zel_policy_list_t> : Record<TLV_ZEL_POLICY_LIST, 123> {
    static constexpr FixedString name = "policy_list";
    static constexpr std::tuple members{
        Sequence<124, &zel_policy_list_t::num_policy, &zel_policy_list_t::policies>{"policy_list num_policy"},
    };
};

// clang-format on

// Matches and actions are the objects that a message carries in full only once.
template <class R>
inline constexpr bool is_shareable = std::is_same_v<R, zel_match_t> || std::is_same_v<R, zel_action_t>;

// A reference stands between the markers of a match or action that the message
// has carried in full before.  A reader knows it by its first element.
struct Reference {
    uint32_t mat_type;
    uint16_t mat_id;
};

inline constexpr uint16_t reference_mat_type_id = 158;
inline constexpr uint16_t reference_mat_id_id = 157;

} // namespace zel
