// Protocol Buffers, with arenas: the graph is a message in an arena, before and after.
//
// Encoding takes the size first, and a block of exactly that size.  Decoding makes an
// arena for each message, with blocks large enough that few are needed; the defaults
// were slower.  An object is in full where it occurs first; repeats hold its id alone,
// already in the graph, so that encoding need not look for them.
#include "bench/by_id.hpp"
#include "bench/contender.hpp"

#include "policy.pb.h"

namespace bench {
namespace {

// ---- From the neutral graph

void fill(pb::Service &to, const Service &from)
{
    for (const ServiceElement &element : from.elements) {
        pb::ServiceElement &added = *to.add_elements();
        added.set_sip(element.sip);
        added.set_sip_mask(element.sip_mask);
        added.set_dip(element.dip);
        added.set_dip_mask(element.dip_mask);
        added.set_sport(element.sport);
        added.set_sport_mask(element.sport_mask);
        added.set_dport(element.dport);
        added.set_dport_mask(element.dport_mask);
        added.set_protocol(element.protocol);
    }
}

void fill_param(pb::Match &to, const Service &from) { fill(*to.mutable_service(), from); }
void fill_param(pb::Match &to, const Label &from)
{
    pb::Label &label = *to.mutable_label();
    label.set_eth_type(from.eth_type);
    label.set_encap_flag(from.encap_flag);
    label.set_encap_tunnel_sip(from.encap_tunnel_sip);
    label.set_encap_tunnel_dip(from.encap_tunnel_dip);
    label.set_label(from.label);
}
void fill_param(pb::Match &to, const EtherProtocol &from) { to.set_ether_protocol(from.type); }
void fill_param(pb::Match &to, const Acl &from) { to.set_acl(from.acl); }

void fill_next_hop(pb::Redirect &to, const L2Redirect &from)
{
    pb::L2Redirect &l2 = *to.mutable_l2();
    l2.set_vrf(from.vrf);
    l2.set_r_table_id(from.r_table_id);
    l2.set_dip(from.dip);
    l2.set_smac(number_of(from.smac));
    l2.set_dmac(number_of(from.dmac));
    l2.set_dest_if(from.dest_if);
}
void fill_next_hop(pb::Redirect &to, const L3Redirect &from)
{
    pb::L3Redirect &l3 = *to.mutable_l3();
    l3.set_vrf(from.vrf);
    l3.set_r_table_id(from.r_table_id);
    l3.set_sip(from.sip);
    l3.set_dip(from.dip);
}

void fill_param(pb::Action &to, const Redirect &from)
{
    pb::Redirect &redirect = *to.mutable_redirect();
    redirect.set_encap_flag(from.encap_flag);
    redirect.set_insert_label(from.insert_label);
    redirect.set_label(from.label);
    redirect.set_etype(from.etype);
    std::visit([&](const auto &next_hop) { fill_next_hop(redirect, next_hop); }, from.next_hop);
}
void fill_param(pb::Action &to, const NatRewrite &from)
{
    pb::NatRewrite &nat = *to.mutable_nat_rewrite();
    nat.set_src_ip(from.src_ip);
    nat.set_dst_ip(from.dst_ip);
    nat.set_src_port(from.src_port);
    nat.set_dst_port(from.dst_port);
}

void fill(pb::Match &to, const Match &from, SeenIds &seen)
{
    to.set_id(from.id);
    if (!seen.matches.enter(from.id))
        return;
    to.set_op_mode(from.op_mode);
    to.set_pre_match_id(from.pre_match_id);
    std::visit([&](const auto &param) { fill_param(to, param); }, from.param);
}

void fill(pb::Action &to, const Action &from, SeenIds &seen)
{
    to.set_id(from.id);
    if (!seen.actions.enter(from.id))
        return;
    to.set_op_mode(from.op_mode);
    std::visit([&](const auto &param) { fill_param(to, param); }, from.param);
}

void fill(pb::Pair &to, const Pair &from, SeenIds &seen)
{
    to.set_id(from.id);
    to.set_op_mode(from.op_mode);
    to.set_pre_pair_id(from.pre_pair_id);
    pb::MatchGroup &matches = *to.mutable_match_group();
    matches.set_id(from.match_group.id);
    matches.set_op_mode(from.match_group.op_mode);
    matches.set_logical_op(from.match_group.logical_op);
    for (const auto &match : from.match_group.matches)
        fill(*matches.add_matches(), *match, seen);
    pb::ActionGroup &actions = *to.mutable_action_group();
    actions.set_id(from.action_group.id);
    actions.set_op_mode(from.action_group.op_mode);
    for (const auto &action : from.action_group.actions)
        fill(*actions.add_actions(), *action, seen);
}

void fill(pb::Policy &to, const Policy &from, SeenIds &seen)
{
    to.set_version(from.version);
    to.set_id(from.id);
    to.set_op_mode(from.op_mode);
    to.set_app_type(from.app_type);
    for (const Pair &pair : from.pairs)
        fill(*to.add_pairs(), pair, seen);
    for (const Interface &interface : from.interfaces) {
        pb::Interface &added = *to.add_interfaces();
        added.set_op_mode(interface.op_mode);
        added.set_direction(interface.direction);
        added.set_interface(interface.interface);
        added.set_vlan(interface.vlan);
        added.set_vrf(interface.vrf);
    }
}

// ---- And back

Service read(const pb::Service &from)
{
    Service service;
    for (const pb::ServiceElement &e : from.elements())
        service.elements.push_back({e.sip(), e.sip_mask(), e.dip(), e.dip_mask(), uint16_t(e.sport()),
                                    uint16_t(e.sport_mask()), uint16_t(e.dport()), uint16_t(e.dport_mask()),
                                    uint8_t(e.protocol())});
    return service;
}

decltype(Match::param) read_param(const pb::Match &from)
{
    switch (from.param_case()) {
    case pb::Match::kService:
        return read(from.service());
    case pb::Match::kLabel: {
        const pb::Label &label = from.label();
        return Label{uint16_t(label.eth_type()), label.encap_flag(), label.encap_tunnel_sip(), label.encap_tunnel_dip(),
                     label.label()};
    }
    case pb::Match::kEtherProtocol:
        return EtherProtocol{uint16_t(from.ether_protocol())};
    default:
        return Acl{from.acl()};
    }
}

decltype(Redirect::next_hop) read_next_hop(const pb::Redirect &from)
{
    if (from.has_l3())
        return L3Redirect{from.l3().vrf(), from.l3().r_table_id(), from.l3().sip(), from.l3().dip()};
    const pb::L2Redirect &l2 = from.l2();
    return L2Redirect{l2.vrf(), l2.r_table_id(), l2.dip(), mac_of(l2.smac()), mac_of(l2.dmac()), l2.dest_if()};
}

decltype(Action::param) read_param(const pb::Action &from)
{
    if (from.has_redirect()) {
        const pb::Redirect &redirect = from.redirect();
        return Redirect{redirect.encap_flag(), redirect.insert_label(), redirect.label(), uint16_t(redirect.etype()),
                        read_next_hop(redirect)};
    }
    const pb::NatRewrite &nat = from.nat_rewrite();
    return NatRewrite{nat.src_ip(), nat.dst_ip(), uint16_t(nat.src_port()), uint16_t(nat.dst_port())};
}

Shared<Match> read(const pb::Match &from)
{
    return std::make_shared<const Match>(
        Match{from.op_mode(), uint16_t(from.id()), uint16_t(from.pre_match_id()), read_param(from)});
}

Shared<Action> read(const pb::Action &from)
{
    return std::make_shared<const Action>(Action{from.op_mode(), uint16_t(from.id()), read_param(from)});
}

template <class T, class Objects> std::vector<Shared<T>> read_objects(const Objects &from, Sharing<T> &sharing)
{
    std::vector<Shared<T>> objects(std::size_t(from.size()));
    for (std::size_t i = 0; i < objects.size(); ++i) {
        const auto &object = from.Get(int(i));
        if (object.param_case() == 0) {
            objects[i] = sharing.repeat(uint16_t(object.id()));
        } else {
            objects[i] = read(object);
            sharing.enter(objects[i]);
        }
    }
    return objects;
}

Pair read(const pb::Pair &from, SharedObjects &objects)
{
    const pb::MatchGroup &matches = from.match_group();
    const pb::ActionGroup &actions = from.action_group();
    return {uint16_t(from.id()),
            from.op_mode(),
            uint16_t(from.pre_pair_id()),
            {uint16_t(matches.id()), matches.op_mode(), matches.logical_op(),
             read_objects<Match>(matches.matches(), objects.matches)},
            {uint16_t(actions.id()), actions.op_mode(), read_objects<Action>(actions.actions(), objects.actions)}};
}

Policy read(const pb::Policy &from, SharedObjects &objects)
{
    Policy policy{uint16_t(from.version()), uint16_t(from.id()), from.op_mode(), from.app_type(), {}, {}};
    for (const pb::Pair &pair : from.pairs())
        policy.pairs.push_back(read(pair, objects));
    for (const pb::Interface &i : from.interfaces())
        policy.interfaces.push_back({i.op_mode(), i.direction(), i.interface(), uint16_t(i.vlan()), i.vrf()});
    return policy;
}

// ---- The row

struct InArena {
    explicit InArena(const google::protobuf::ArenaOptions &options = {}) : arena(options) {}

    google::protobuf::Arena arena;
    pb::Message *message = google::protobuf::Arena::CreateMessage<pb::Message>(&arena);
};

class Protobuf final : public Contender {
public:
    void load(const Message &message) override
    {
        SeenIds seen;
        for (const Policy &policy : message.policies)
            fill(*graph_.message->add_policies(), policy, seen);
    }

    Encoded encode() override
    {
        const std::size_t size = graph_.message->ByteSizeLong();
        void *const block = std::malloc(size);
        graph_.message->SerializeWithCachedSizesToArray(static_cast<uint8_t *>(block));
        return encoded_in(block, size);
    }

    void *decode(Bytes bytes) override
    {
        google::protobuf::ArenaOptions options;
        options.start_block_size = 4 * bytes.size();
        options.max_block_size = 1 << 20;
        auto *const graph = new InArena(options);
        graph->message->ParseFromArray(bytes.data(), int(bytes.size()));
        return graph;
    }

    void release(void *graph) override { delete static_cast<InArena *>(graph); }

    Message neutral(const void *graph) override
    {
        SharedObjects objects;
        Message message;
        for (const pb::Policy &policy : static_cast<const InArena *>(graph)->message->policies())
            message.policies.push_back(read(policy, objects));
        return message;
    }

private:
    InArena graph_;
};

const Enter<Protobuf> row("protobuf, arenas");

} // namespace
} // namespace bench
