#include "bench/zel_graph.hpp"

#include <cstdlib>
#include <cstring>

namespace bench {
namespace {

template <class R> R *allocate(std::size_t count = 1) { return static_cast<R *>(std::calloc(count, sizeof(R))); }

const auto &object(const auto &member) { return member; }
template <class T> const T &object(const Shared<T> &member) { return *member; }

// ---- To the library's records

void fill(zel_match_service_element_t &to, const ServiceElement &from)
{
    to = {from.sip,        from.sip_mask, from.dip,        from.dip_mask, from.sport,
          from.sport_mask, from.dport,    from.dport_mask, from.protocol};
}
void fill(zel_match_t &to, const Match &from);
void fill(zel_action_t &to, const Action &from);
void fill(zel_match_action_pair_t &to, const Pair &from);
void fill(zel_if_element_t &to, const Interface &from)
{
    to = {from.op_mode, from.direction, from.interface, from.vlan, from.vrf};
}
void fill(zel_policy_t &to, const Policy &from);

template <class R, class M> void fill_sequence(uint16_t &count, R **&members, const std::vector<M> &from)
{
    count = uint16_t(from.size());
    members = allocate<R *>(from.size());
    for (std::size_t i = 0; i < from.size(); ++i)
        fill(*(members[i] = allocate<R>()), object(from[i]));
}

void fill_text(uint8_t *to, const std::string &from) { std::memcpy(to, from.data(), from.size()); }

void fill_param(zel_match_t &to, const Service &from)
{
    to.type = ZEL_MATCH_TYPE_SERVICE;
    fill_sequence(to.param.service.num_elements, to.param.service.elements, from.elements);
}
void fill_param(zel_match_t &to, const Label &from)
{
    to.type = ZEL_MATCH_TYPE_LABEL;
    to.param.label = {
        from.eth_type, from.encap_flag, from.encap_tunnel_sip, from.encap_tunnel_dip, uint16_t(from.label.size()), {}};
    fill_text(to.param.label.label, from.label);
}
void fill_param(zel_match_t &to, const EtherProtocol &from)
{
    to.type = ZEL_MATCH_TYPE_ETH_PROTO;
    to.param.eth_proto = {from.type};
}
void fill_param(zel_match_t &to, const Acl &from)
{
    to.type = ZEL_MATCH_TYPE_ACL;
    fill_text(to.param.acl.acl, from.acl);
}

void fill(zel_match_t &to, const Match &from)
{
    to.op_mode = from.op_mode;
    to.id = from.id;
    to.pre_match_id = from.pre_match_id;
    std::visit([&](const auto &param) { fill_param(to, param); }, from.param);
}

void fill_next_hop(zel_action_param_redirect_t &to, const L2Redirect &from)
{
    to.type = ZEL_REDIRECT_TYPE_L2_IPV4;
    to.l2_ipv4 = {from.vrf, from.r_table_id, from.dip, {}, {}, from.dest_if};
    std::ranges::copy(from.smac, to.l2_ipv4.smac);
    std::ranges::copy(from.dmac, to.l2_ipv4.dmac);
}
void fill_next_hop(zel_action_param_redirect_t &to, const L3Redirect &from)
{
    to.type = ZEL_REDIRECT_TYPE_L3_IPV4;
    to.l3_ipv4 = {from.vrf, from.r_table_id, from.sip, from.dip};
}

void fill_param(zel_action_t &to, const Redirect &from)
{
    to.type = ZEL_ACTION_TYPE_REDIRECT;
    zel_action_param_redirect_t &redirect = to.param.redirect;
    redirect.encap_flag = from.encap_flag;
    redirect.insert_label = from.insert_label;
    redirect.label_param.label_length = uint8_t(from.label.size());
    fill_text(redirect.label_param.label, from.label);
    redirect.etype = from.etype;
    std::visit([&](const auto &next_hop) { fill_next_hop(redirect, next_hop); }, from.next_hop);
}
void fill_param(zel_action_t &to, const NatRewrite &from)
{
    to.type = ZEL_ACTION_TYPE_NAT_REWRITE;
    to.param.nat_rewrite = {from.src_ip, from.dst_ip, from.src_port, from.dst_port};
}

void fill(zel_action_t &to, const Action &from)
{
    to.op_mode = from.op_mode;
    to.id = from.id;
    std::visit([&](const auto &param) { fill_param(to, param); }, from.param);
}

void fill(zel_match_action_pair_t &to, const Pair &from)
{
    const auto &[id, op_mode, logical_op, matches] = from.match_group;
    to = {from.id, from.op_mode, from.pre_pair_id, {id, op_mode, logical_op, 0, nullptr}, {}};
    fill_sequence(to.match_group.num_match, to.match_group.matches, matches);
    to.action_group.id = from.action_group.id;
    to.action_group.op_mode = from.action_group.op_mode;
    fill_sequence(to.action_group.num_action, to.action_group.actions, from.action_group.actions);
}

void fill(zel_policy_t &to, const Policy &from)
{
    to = {from.version, from.id, from.op_mode, from.app_type, {}, {}};
    fill_sequence(to.match_action_pair_group.num_pair, to.match_action_pair_group.pairs, from.pairs);
    fill_sequence(to.if_group.num_if, to.if_group.if_elements, from.interfaces);
}

// ---- And back

ServiceElement read(const zel_match_service_element_t &from)
{
    return {from.sip,        from.sip_mask, from.dip,        from.dip_mask, from.sport,
            from.sport_mask, from.dport,    from.dport_mask, from.protocol};
}

template <class M, class R> std::vector<M> read_sequence(uint16_t count, R *const *members);

std::string read_text(const uint8_t *from, std::size_t size) { return {reinterpret_cast<const char *>(from), size}; }

Match read(const zel_match_t &from)
{
    Match match{from.op_mode, from.id, from.pre_match_id, {}};
    switch (from.type) {
    case ZEL_MATCH_TYPE_SERVICE:
        match.param =
            Service{read_sequence<ServiceElement>(from.param.service.num_elements, from.param.service.elements)};
        break;
    case ZEL_MATCH_TYPE_LABEL: {
        const zel_match_label_t &label = from.param.label;
        match.param = Label{label.eth_type, label.encap_flag, label.encap_tunnel_sip, label.encap_tunnel_dip,
                            read_text(label.label, label.length)};
        break;
    }
    case ZEL_MATCH_TYPE_ETH_PROTO:
        match.param = EtherProtocol{from.param.eth_proto.type};
        break;
    case ZEL_MATCH_TYPE_ACL:
        match.param = Acl{reinterpret_cast<const char *>(from.param.acl.acl)};
        break;
    }
    return match;
}

Redirect read(const zel_action_param_redirect_t &from)
{
    Redirect redirect{from.encap_flag,
                      from.insert_label,
                      read_text(from.label_param.label, from.label_param.label_length),
                      from.etype,
                      {}};
    if (from.type == ZEL_REDIRECT_TYPE_L2_IPV4) {
        const zel_l2_redirect_ipv4_t &l2 = from.l2_ipv4;
        redirect.next_hop =
            L2Redirect{l2.vrf, l2.r_table_id, l2.dip, std::to_array(l2.smac), std::to_array(l2.dmac), l2.dest_if};
    } else {
        const zel_l3_redirect_ipv4_t &l3 = from.l3_ipv4;
        redirect.next_hop = L3Redirect{l3.vrf, l3.r_table_id, l3.sip, l3.dip};
    }
    return redirect;
}

Action read(const zel_action_t &from)
{
    if (from.type == ZEL_ACTION_TYPE_REDIRECT)
        return {from.op_mode, from.id, read(from.param.redirect)};
    const zel_action_nat_rewrite_t &nat = from.param.nat_rewrite;
    return {from.op_mode, from.id, NatRewrite{nat.src_ip, nat.dst_ip, nat.src_port, nat.dst_port}};
}

Pair read(const zel_match_action_pair_t &from)
{
    const zel_match_grp_t &matches = from.match_group;
    const zel_action_grp_t &actions = from.action_group;
    return {from.id,
            from.op_mode,
            from.pre_pair_id,
            {matches.id, matches.op_mode, matches.logical_op,
             read_sequence<Shared<Match>>(matches.num_match, matches.matches)},
            {actions.id, actions.op_mode, read_sequence<Shared<Action>>(actions.num_action, actions.actions)}};
}

Interface read(const zel_if_element_t &from)
{
    return {from.op_mode, from.direction, from.interface, from.vlan, from.vrf};
}

Policy read(const zel_policy_t &from)
{
    const zel_match_action_pair_grp_t &pairs = from.match_action_pair_group;
    return {from.version,
            from.id,
            from.op_mode,
            from.app_type,
            read_sequence<Pair>(pairs.num_pair, pairs.pairs),
            read_sequence<Interface>(from.if_group.num_if, from.if_group.if_elements)};
}

template <class M, class R> std::vector<M> read_sequence(uint16_t count, R *const *members)
{
    std::vector<M> sequence;
    for (std::size_t i = 0; i < count; ++i) {
        if constexpr (is_shared<M>)
            sequence.push_back(std::make_shared<typename M::element_type>(read(*members[i])));
        else
            sequence.push_back(read(*members[i]));
    }
    return sequence;
}

} // namespace

uint32_t api_type_of(const Message &message)
{
    return message.policies.size() == 1 ? ZEL_API_POLICY_UPDATE : ZEL_API_POLICY_LIST_UPDATE;
}

void *to_zel(const Message &message)
{
    if (api_type_of(message) == ZEL_API_POLICY_UPDATE) {
        auto *const policy = allocate<zel_policy_t>();
        fill(*policy, message.policies[0]);
        return policy;
    }
    auto *const list = allocate<zel_policy_list_t>();
    fill_sequence(list->num_policy, list->policies, message.policies);
    return list;
}

Message from_zel(uint32_t mat_type, const void *root)
{
    if (mat_type == ZEL_MAT_TYPE_POLICY)
        return {{read(*static_cast<const zel_policy_t *>(root))}};
    const auto &list = *static_cast<const zel_policy_list_t *>(root);
    return {read_sequence<Policy>(list.num_policy, list.policies)};
}

} // namespace bench
