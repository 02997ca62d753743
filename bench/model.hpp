// The neutral graph of the benchmark.  Every contender's own graph is made from it
// and turned back into it for the check; formats that bring no graph of their own
// encode from it and decode into it directly.
//
// It holds the matches and actions that occur in the workloads.  A match or action
// that stands in many places is one object with many owners.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <variant>
#include <vector>

namespace bench {

using Mac = std::array<uint8_t, 6>;

// For the formats that have numbers of 64 bits, but no short arrays of bytes.
inline uint64_t number_of(const Mac &mac)
{
    uint64_t number = 0;
    std::ranges::copy(mac, reinterpret_cast<uint8_t *>(&number));
    return number;
}
inline Mac mac_of(uint64_t number)
{
    Mac mac;
    std::copy_n(reinterpret_cast<const uint8_t *>(&number), mac.size(), mac.begin());
    return mac;
}

template <class T> using Shared = std::shared_ptr<const T>;

// Every record lists its members, so that what treats all members alike (comparison
// and several of the contenders) needs no list of its own.
template <class T>
concept Record = requires
{
    T::members;
};

struct ServiceElement {
    uint32_t sip, sip_mask, dip, dip_mask;
    uint16_t sport, sport_mask, dport, dport_mask;
    uint8_t protocol;

    using R = ServiceElement;
    static constexpr std::tuple members{&R::sip,        &R::sip_mask, &R::dip,        &R::dip_mask, &R::sport,
                                        &R::sport_mask, &R::dport,    &R::dport_mask, &R::protocol};
};

struct Service {
    std::vector<ServiceElement> elements;

    static constexpr std::tuple members{&Service::elements};
};

struct Label {
    uint16_t eth_type;
    uint32_t encap_flag, encap_tunnel_sip, encap_tunnel_dip;
    std::string label;

    using R = Label;
    static constexpr std::tuple members{&R::eth_type, &R::encap_flag, &R::encap_tunnel_sip, &R::encap_tunnel_dip,
                                        &R::label};
};

struct EtherProtocol {
    uint16_t type;

    static constexpr std::tuple members{&EtherProtocol::type};
};

struct Acl {
    std::string acl;

    static constexpr std::tuple members{&Acl::acl};
};

struct Match {
    uint32_t op_mode;
    uint16_t id, pre_match_id;
    std::variant<Service, Label, EtherProtocol, Acl> param;

    using R = Match;
    static constexpr std::tuple members{&R::op_mode, &R::id, &R::pre_match_id, &R::param};
};

struct L2Redirect {
    uint32_t vrf, r_table_id, dip;
    Mac smac, dmac;
    uint32_t dest_if;

    using R = L2Redirect;
    static constexpr std::tuple members{&R::vrf, &R::r_table_id, &R::dip, &R::smac, &R::dmac, &R::dest_if};
};

struct L3Redirect {
    uint32_t vrf, r_table_id, sip, dip;

    using R = L3Redirect;
    static constexpr std::tuple members{&R::vrf, &R::r_table_id, &R::sip, &R::dip};
};

struct Redirect {
    uint32_t encap_flag, insert_label;
    std::string label;
    uint16_t etype;
    std::variant<L2Redirect, L3Redirect> next_hop;

    using R = Redirect;
    static constexpr std::tuple members{&R::encap_flag, &R::insert_label, &R::label, &R::etype, &R::next_hop};
};

struct NatRewrite {
    uint32_t src_ip, dst_ip;
    uint16_t src_port, dst_port;

    using R = NatRewrite;
    static constexpr std::tuple members{&R::src_ip, &R::dst_ip, &R::src_port, &R::dst_port};
};

struct Action {
    uint32_t op_mode;
    uint16_t id;
    std::variant<Redirect, NatRewrite> param;

    using R = Action;
    static constexpr std::tuple members{&R::op_mode, &R::id, &R::param};
};

struct MatchGroup {
    uint16_t id;
    uint32_t op_mode, logical_op;
    std::vector<Shared<Match>> matches;

    using R = MatchGroup;
    static constexpr std::tuple members{&R::id, &R::op_mode, &R::logical_op, &R::matches};
};

struct ActionGroup {
    uint16_t id;
    uint32_t op_mode;
    std::vector<Shared<Action>> actions;

    using R = ActionGroup;
    static constexpr std::tuple members{&R::id, &R::op_mode, &R::actions};
};

struct Pair {
    uint16_t id;
    uint32_t op_mode;
    uint16_t pre_pair_id;
    MatchGroup match_group;
    ActionGroup action_group;

    using R = Pair;
    static constexpr std::tuple members{&R::id, &R::op_mode, &R::pre_pair_id, &R::match_group, &R::action_group};
};

struct Interface {
    uint32_t op_mode, direction, interface;
    uint16_t vlan;
    uint32_t vrf;

    using R = Interface;
    static constexpr std::tuple members{&R::op_mode, &R::direction, &R::interface, &R::vlan, &R::vrf};
};

struct Policy {
    uint16_t version, id;
    uint32_t op_mode, app_type;
    std::vector<Pair> pairs;
    std::vector<Interface> interfaces;

    using R = Policy;
    static constexpr std::tuple members{&R::version, &R::id, &R::op_mode, &R::app_type, &R::pairs, &R::interfaces};
};

// One policy is sent as such, any other number as a policy list.
struct Message {
    std::vector<Policy> policies;

    static constexpr std::tuple members{&Message::policies};
};

// ---- What follows from the lists of members

template <Record R, class Visit> void for_each_member(R &record, Visit visit)
{
    std::apply([&](auto... member) { (visit(record.*member), ...); }, R::members);
}

template <class T> inline constexpr bool is_vector = false;
template <class T> inline constexpr bool is_vector<std::vector<T>> = true;
template <class T> inline constexpr bool is_variant = false;
template <class... T> inline constexpr bool is_variant<std::variant<T...>> = true;
template <class T> inline constexpr bool is_shared = false;
template <class T> inline constexpr bool is_shared<std::shared_ptr<T>> = true;

// Makes the alternative with an index the one that a variant holds.
template <class... T> void emplace_alternative(std::variant<T...> &variant, std::size_t index)
{
    std::size_t i = 0;
    ((i++ == index && (variant.template emplace<T>(), true)) || ...);
}

// Equal content, whichever objects are shared.
template <class T> bool same(const T &a, const T &b)
{
    if constexpr (is_shared<T>)
        return same(*a, *b);
    else if constexpr (is_vector<T>)
        return std::ranges::equal(a, b, [](const auto &x, const auto &y) { return same(x, y); });
    else if constexpr (is_variant<T>)
        return a.index() == b.index() &&
               std::visit([&](const auto &x) { return same(x, std::get<std::remove_cvref_t<decltype(x)>>(b)); }, a);
    else if constexpr (Record<T>)
        return std::apply([&](auto... member) { return (same(a.*member, b.*member) && ...); }, T::members);
    else
        return a == b;
}

inline bool operator==(const Message &a, const Message &b) { return same(a, b); }

} // namespace bench
