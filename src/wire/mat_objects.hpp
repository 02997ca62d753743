// MAT objects: the record of each MAT type, its TLV type name, and what people
// call it.
#pragma once

#include "wire/records.hpp"

#include <array>
#include <stdint.h>

namespace zel {

template <uint32_t Type, class R, FixedString TlvName, FixedString Noun> struct MatObject {
    using record = R;
    static constexpr uint32_t type = Type;
    static constexpr auto tlv_name = TlvName;
    static constexpr auto noun = Noun;
};

template <class... O> struct MatObjectList {};

// clang-format off
using MatObjects = MatObjectList<
    MatObject<ZEL_MAT_TYPE_STAT_REQUEST_ENTRY, zel_stat_request_entry_t, "TLV_ZEL_STAT_REQ_ENTRY", "query">,
    MatObject<ZEL_MAT_TYPE_STAT_REQUEST, zel_stat_request_t, "TLV_ZEL_STAT_REQUEST", "statistics request">,
    MatObject<ZEL_MAT_TYPE_IF_ELEMENT, zel_if_element_t, "TLV_ZEL_IF_ELEMENT", "interface">,
    MatObject<ZEL_MAT_TYPE_IF_GROUP, zel_if_group_t, "TLV_ZEL_IF_GROUP", "interface group">,
    MatObject<ZEL_MAT_TYPE_MATCH_SERVICE_ELEMENT, zel_match_service_element_t, "TLV_ZEL_MATCH_SERVICE_ELE", "service element">,
    MatObject<ZEL_MAT_TYPE_ACTION, zel_action_t, "TLV_ZEL_ACTION", "action">,
    MatObject<ZEL_MAT_TYPE_MATCH, zel_match_t, "TLV_ZEL_MATCH", "match">,
    MatObject<ZEL_MAT_TYPE_ACTION_GROUP, zel_action_grp_t, "TLV_ZEL_ACTION_GROUP", "action group">,
    MatObject<ZEL_MAT_TYPE_MATCH_GROUP, zel_match_grp_t, "TLV_ZEL_MATCH_GROUP", "match group">,
    MatObject<ZEL_MAT_TYPE_MATCH_ACTION_PAIR, zel_match_action_pair_t, "TLV_ZEL_MATCH_ACTION_PAIR", "pair">,
    MatObject<ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP, zel_match_action_pair_grp_t, "TLV_ZEL_MATCH_ACTION_PAIR_GROUP", "pair group">,
    MatObject<ZEL_MAT_TYPE_POLICY, zel_policy_t, "TLV_ZEL_POLICY", "policy">,
    MatObject<ZEL_MAT_TYPE_POLICY_LIST, zel_policy_list_t, "TLV_ZEL_POLICY_LIST", "policy list">>;
// clang-format on

inline constexpr uint32_t num_mat_types = ZEL_MAT_TYPE_POLICY_LIST + 1;

// What the library needs to know of a MAT type at run time; all zero for types
// that are no object.
struct MatTypeFacts {
    uint16_t start;
    uint16_t end;
    uint32_t record_size;
};

template <class... O> consteval std::array<MatTypeFacts, num_mat_types> collect_facts(MatObjectList<O...>)
{
    std::array<MatTypeFacts, num_mat_types> facts{};
    ((facts[O::type] = {Wire<typename O::record>::start, Wire<typename O::record>::end, sizeof(typename O::record)}),
     ...);
    return facts;
}

inline constexpr auto mat_type_facts = collect_facts(MatObjects{});

constexpr MatTypeFacts facts_of(uint32_t mat_type)
{
    return mat_type < num_mat_types ? mat_type_facts[mat_type] : MatTypeFacts{};
}

// The MAT type and TLV type name of a record.
template <class R, class List> struct FindMatObject;
template <class R, class First, class... Rest>
struct FindMatObject<R, MatObjectList<First, Rest...>> : FindMatObject<R, MatObjectList<Rest...>> {};
template <class R, uint32_t Type, FixedString TlvName, FixedString Noun, class... Rest>
struct FindMatObject<R, MatObjectList<MatObject<Type, R, TlvName, Noun>, Rest...>> : MatObject<Type, R, TlvName, Noun> {
};

template <class R> using MatObjectOf = FindMatObject<R, MatObjects>;

} // namespace zel
