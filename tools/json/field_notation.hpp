// Which field is written in which notation.  A field that is not named here is a
// number, or a text if it is bytes; the names of a selector's values are those of
// the records that it selects.
#pragma once

#include "tools/json/member_name.hpp"
#include "tools/json/notation.hpp"
#include "tools/json/request_kinds.hpp"
#include "tools/message/service_protocol.hpp"
#include "wire/mat_objects.hpp"

#include <array>
#include <tuple>

namespace tools {

// How a field stands in the object of its record.
struct Alone {};                             // as a member with the field's name
template <auto Mask> struct WithMask {};     // likewise, with its mask in the same text
struct WithinAnother {};                     // not at all: another member says it
template <auto Length> struct SetsLength {}; // as a member; its length is a field, too
template <auto Text> struct LengthOf {};     // as a member only if it is not the text's length

template <class Value, class Form = Alone> struct Is {
    using value = Value;
    using form = Form;
};

// Names for the values of a selector that select nothing.
template <auto Selector> inline constexpr std::array<Name, 0> further_names{};
template <>
inline constexpr std::array<Name, 2> further_names<&zel_match_t::type>{
    {{ZEL_MATCH_TYPE_ACL_IPV6, "acl_ipv6"}, {ZEL_MATCH_TYPE_NO_PARAM, "no_param"}}};

template <uint32_t Value, auto... Path> consteval Name option_name(zel::Option<Value, Path...>)
{
    return {Value, PathName<Path...>::value};
}

template <auto Selector, class Member> inline constexpr bool is_choice = false;
template <auto Selector, class... O> inline constexpr bool is_choice<Selector, zel::Choice<Selector, O...>> = true;

template <auto Selector, class... O> consteval auto option_names(zel::Choice<Selector, O...>)
{
    std::array<Name, sizeof...(O) + further_names<Selector>.size()> names{option_name(O{})...};
    std::ranges::copy(further_names<Selector>, names.begin() + sizeof...(O));
    return names;
}

template <auto Selector> consteval auto names_from(std::tuple<>) { return std::array<Name, 0>{}; }
template <auto Selector, class First, class... Rest> consteval auto names_from(std::tuple<First, Rest...>)
{
    if constexpr (is_choice<Selector, First>)
        return option_names(First{});
    else
        return names_from<Selector>(std::tuple<Rest...>{});
}

template <class R> using Members = std::remove_const_t<decltype(zel::Wire<R>::members)>;

// The record that a member belongs to.
template <auto Member> using RecordOf = typename zel::MemberPointer<decltype(Member)>::record;

// The names of a field's values, from the choice that it selects in its record;
// none when it is no selector.
template <auto Member> inline constexpr auto selector_names = names_from<Member>(Members<RecordOf<Member>>{});

inline constexpr std::array op_modes{Name{service::op_mode_active, "active"},
                                     Name{service::op_mode_disabled, "disabled"}};
inline constexpr std::array logical_ops{Name{service::logical_and, "and"}, Name{service::logical_or, "or"}};
inline constexpr std::array all_or_id{Name{service::stat_all, "all"}};
inline constexpr std::array stat_flags{Name{service::stat_flag_none, "none"}, Name{service::stat_flag_clear, "clear"}};
inline constexpr std::array op_codes{Name{service::op_code_set, "set"}, Name{service::op_code_remove, "remove"},
                                     Name{service::op_code_stats, "stats"}};

// The protocol of a five-tuple has no mask: 0 stands for any.
inline constexpr std::array protocols{Name{0, "any"},   Name{1, "icmp"},  Name{2, "igmp"},  Name{6, "tcp"},
                                      Name{17, "udp"},  Name{47, "gre"},  Name{50, "esp"},  Name{51, "ah"},
                                      Name{89, "ospf"}, Name{103, "pim"}, Name{132, "sctp"}};

template <auto Member> consteval auto default_notation()
{
    if constexpr (std::is_array_v<zel::Value<Member>>)
        return Is<Text<0>>{};
    else if constexpr (!selector_names<Member>.empty())
        return Is<Names<selector_names<Member>>>{};
    else
        return Is<Number>{};
}
template <auto Member> struct NotationOf : decltype(default_notation<Member>()) {};

// clang-format off

using FiveTuple = zel_match_service_element_t;
template <> struct NotationOf<&FiveTuple::sip> : Is<Ipv4, WithMask<&FiveTuple::sip_mask>> {};
template <> struct NotationOf<&FiveTuple::sip_mask> : Is<Ipv4, WithinAnother> {};
template <> struct NotationOf<&FiveTuple::dip> : Is<Ipv4, WithMask<&FiveTuple::dip_mask>> {};
template <> struct NotationOf<&FiveTuple::dip_mask> : Is<Ipv4, WithinAnother> {};
template <> struct NotationOf<&FiveTuple::sport> : Is<Number, WithMask<&FiveTuple::sport_mask>> {};
template <> struct NotationOf<&FiveTuple::sport_mask> : Is<Hex, WithinAnother> {};
template <> struct NotationOf<&FiveTuple::dport> : Is<Number, WithMask<&FiveTuple::dport_mask>> {};
template <> struct NotationOf<&FiveTuple::dport_mask> : Is<Hex, WithinAnother> {};
template <> struct NotationOf<&FiveTuple::protocol> : Is<Names<protocols>> {};

// IPv4 addresses.
template <> struct NotationOf<&zel_action_nat_rewrite_t::src_ip> : Is<Ipv4> {};
template <> struct NotationOf<&zel_action_nat_rewrite_t::dst_ip> : Is<Ipv4> {};
template <> struct NotationOf<&zel_l3_redirect_ipv4_t::sip> : Is<Ipv4> {};
template <> struct NotationOf<&zel_l3_redirect_ipv4_t::dip> : Is<Ipv4> {};
template <> struct NotationOf<&zel_l2_redirect_ipv4_t::dip> : Is<Ipv4> {};
template <> struct NotationOf<&zel_match_lisp_proto_t::destination_rloc> : Is<Ipv4> {};
template <> struct NotationOf<&zel_match_label_t::encap_tunnel_sip> : Is<Ipv4> {};
template <> struct NotationOf<&zel_match_label_t::encap_tunnel_dip> : Is<Ipv4> {};

// Ethernet addresses and types.
template <> struct NotationOf<&zel_l2_redirect_ipv4_t::smac> : Is<Mac> {};
template <> struct NotationOf<&zel_l2_redirect_ipv4_t::dmac> : Is<Mac> {};
template <> struct NotationOf<&zel_match_eth_proto_t::type> : Is<Hex> {};
template <> struct NotationOf<&zel_match_label_t::eth_type> : Is<Hex> {};
template <> struct NotationOf<&zel_action_param_redirect_t::etype> : Is<Hex> {};

// Texts.
template <> struct NotationOf<&zel_match_acl_t::acl> : Is<Text<1>> {};
template <> struct NotationOf<&zel_match_label_t::length> : Is<Number, LengthOf<&zel_match_label_t::label>> {};
template <> struct NotationOf<&zel_match_label_t::label> : Is<Text<0>, SetsLength<&zel_match_label_t::length>> {};
template <> struct NotationOf<&zel_action_label_param_t::label_length> : Is<Number, LengthOf<&zel_action_label_param_t::label>> {};
template <> struct NotationOf<&zel_action_label_param_t::label> : Is<Text<0>, SetsLength<&zel_action_label_param_t::label_length>> {};

// What the service means by its numbers.
template <> struct NotationOf<&zel_match_t::op_mode> : Is<Names<op_modes>> {};
template <> struct NotationOf<&zel_match_grp_t::op_mode> : Is<Names<op_modes>> {};
template <> struct NotationOf<&zel_match_grp_t::logical_op> : Is<Names<logical_ops>> {};
template <> struct NotationOf<&zel_action_t::op_mode> : Is<Names<op_modes>> {};
template <> struct NotationOf<&zel_action_grp_t::op_mode> : Is<Names<op_modes>> {};
template <> struct NotationOf<&zel_match_action_pair_t::op_mode> : Is<Names<op_modes>> {};
template <> struct NotationOf<&zel_policy_t::op_mode> : Is<Names<op_modes>> {};
template <> struct NotationOf<&zel_if_element_t::op_mode> : Is<Names<op_modes>> {};
template <> struct NotationOf<&zel_stat_request_entry_t::policy_id> : Is<Names<all_or_id>> {};
template <> struct NotationOf<&zel_stat_request_entry_t::match_action_pair_id> : Is<Names<all_or_id>> {};
template <> struct NotationOf<&zel_stat_request_entry_t::flag> : Is<Names<stat_flags>> {};
template <> struct NotationOf<&zel_kob_header_t::api_type> : Is<Names<request_kind_names>> {};
template <> struct NotationOf<&zel_kob_header_t::op_code> : Is<Names<op_codes>> {};

// Fields that cannot be left out: without them a record is somebody else's.  All
// others are 0 when they are left out.
template <auto Member> inline constexpr bool is_required = false;
template <> inline constexpr bool is_required<&zel_match_t::id> = true;
template <> inline constexpr bool is_required<&zel_action_t::id> = true;
template <> inline constexpr bool is_required<&zel_match_action_pair_t::id> = true;
template <> inline constexpr bool is_required<&zel_policy_t::id> = true;
template <> inline constexpr bool is_required<&zel_kob_header_t::api_type> = true;
template <> inline constexpr bool is_required<&zel_stat_request_entry_t::policy_id> = true;
template <> inline constexpr bool is_required<&zel_stat_request_entry_t::match_action_pair_id> = true;

// Fields that take the command's application when they are left out.
template <auto Member> inline constexpr bool is_application = false;
template <> inline constexpr bool is_application<&zel_policy_t::app_type> = true;
template <> inline constexpr bool is_application<&zel_kob_header_t::app_type> = true;

// clang-format on

} // namespace tools
