// Cap'n Proto, from plain records and to plain records.
//
// The builder's one segment lies in the block of the message, behind the place of the
// segment table, so that nothing is copied when it is done; the room is what the last
// message took.  Repeats hold their id alone.
#include "bench/by_id.hpp"
#include "bench/contender.hpp"

#include "policy.capnp.h"

#include <capnp/serialize.h>
#include <cstring>
#include <utility>

namespace bench {
namespace {

// ---- Writing

using capnp::word;

kj::ArrayPtr<const kj::byte> data(const std::string &text)
{
    return {reinterpret_cast<const kj::byte *>(text.data()), text.size()};
}

void write_param(cp::Match::Builder to, const Service &from)
{
    auto elements = to.initService(unsigned(from.elements.size()));
    for (unsigned i = 0; i < elements.size(); ++i) {
        const ServiceElement &element = from.elements[i];
        auto e = elements[i];
        e.setSip(element.sip);
        e.setSipMask(element.sip_mask);
        e.setDip(element.dip);
        e.setDipMask(element.dip_mask);
        e.setSport(element.sport);
        e.setSportMask(element.sport_mask);
        e.setDport(element.dport);
        e.setDportMask(element.dport_mask);
        e.setProtocol(element.protocol);
    }
}
void write_param(cp::Match::Builder to, const Label &from)
{
    auto label = to.initLabel();
    label.setEthType(from.eth_type);
    label.setEncapFlag(from.encap_flag);
    label.setEncapTunnelSip(from.encap_tunnel_sip);
    label.setEncapTunnelDip(from.encap_tunnel_dip);
    label.setLabel(data(from.label));
}
void write_param(cp::Match::Builder to, const EtherProtocol &from) { to.setEtherProtocol(from.type); }
void write_param(cp::Match::Builder to, const Acl &from) { to.setAcl(data(from.acl)); }

void write_next_hop(cp::Redirect::Builder to, const L2Redirect &from)
{
    auto l2 = to.initL2();
    l2.setVrf(from.vrf);
    l2.setRTableId(from.r_table_id);
    l2.setDip(from.dip);
    l2.setSmac(number_of(from.smac));
    l2.setDmac(number_of(from.dmac));
    l2.setDestIf(from.dest_if);
}
void write_next_hop(cp::Redirect::Builder to, const L3Redirect &from)
{
    auto l3 = to.initL3();
    l3.setVrf(from.vrf);
    l3.setRTableId(from.r_table_id);
    l3.setSip(from.sip);
    l3.setDip(from.dip);
}

void write_param(cp::Action::Builder to, const Redirect &from)
{
    auto redirect = to.initRedirect();
    redirect.setEncapFlag(from.encap_flag);
    redirect.setInsertLabel(from.insert_label);
    redirect.setLabel(data(from.label));
    redirect.setEtype(from.etype);
    std::visit([&](const auto &next_hop) { write_next_hop(redirect, next_hop); }, from.next_hop);
}
void write_param(cp::Action::Builder to, const NatRewrite &from)
{
    auto nat = to.initNatRewrite();
    nat.setSrcIp(from.src_ip);
    nat.setDstIp(from.dst_ip);
    nat.setSrcPort(from.src_port);
    nat.setDstPort(from.dst_port);
}

void write(cp::Match::Builder to, const Match &from, SeenIds &seen)
{
    to.setId(from.id);
    if (!seen.matches.enter(from.id))
        return;
    to.setOpMode(from.op_mode);
    to.setPreMatchId(from.pre_match_id);
    std::visit([&](const auto &param) { write_param(to, param); }, from.param);
}

void write(cp::Action::Builder to, const Action &from, SeenIds &seen)
{
    to.setId(from.id);
    if (!seen.actions.enter(from.id))
        return;
    to.setOpMode(from.op_mode);
    std::visit([&](const auto &param) { write_param(to, param); }, from.param);
}

void write(cp::Pair::Builder to, const Pair &from, SeenIds &seen)
{
    to.setId(from.id);
    to.setOpMode(from.op_mode);
    to.setPrePairId(from.pre_pair_id);
    auto match_group = to.initMatchGroup();
    match_group.setId(from.match_group.id);
    match_group.setOpMode(from.match_group.op_mode);
    match_group.setLogicalOp(from.match_group.logical_op);
    auto matches = match_group.initMatches(unsigned(from.match_group.matches.size()));
    for (unsigned i = 0; i < matches.size(); ++i)
        write(matches[i], *from.match_group.matches[i], seen);
    auto action_group = to.initActionGroup();
    action_group.setId(from.action_group.id);
    action_group.setOpMode(from.action_group.op_mode);
    auto actions = action_group.initActions(unsigned(from.action_group.actions.size()));
    for (unsigned i = 0; i < actions.size(); ++i)
        write(actions[i], *from.action_group.actions[i], seen);
}

void write(cp::Policy::Builder to, const Policy &from, SeenIds &seen)
{
    to.setVersion(from.version);
    to.setId(from.id);
    to.setOpMode(from.op_mode);
    to.setAppType(from.app_type);
    auto pairs = to.initPairs(unsigned(from.pairs.size()));
    for (unsigned i = 0; i < pairs.size(); ++i)
        write(pairs[i], from.pairs[i], seen);
    auto interfaces = to.initInterfaces(unsigned(from.interfaces.size()));
    for (unsigned i = 0; i < interfaces.size(); ++i) {
        const Interface &interface = from.interfaces[i];
        auto added = interfaces[i];
        added.setOpMode(interface.op_mode);
        added.setDirection(interface.direction);
        added.setInterface(interface.interface);
        added.setVlan(interface.vlan);
        added.setVrf(interface.vrf);
    }
}

void write(cp::Message::Builder to, const Message &from, SeenIds &seen)
{
    seen.clear();
    auto policies = to.initPolicies(unsigned(from.policies.size()));
    for (unsigned i = 0; i < policies.size(); ++i)
        write(policies[i], from.policies[i], seen);
}

// Builds in one block, or in more when the first was too small.
class OneBlock final : public capnp::MessageBuilder {
public:
    explicit OneBlock(std::size_t bytes) : capacity_(bytes / sizeof(word)) {}
    ~OneBlock() override
    {
        for (void *block : blocks_)
            std::free(block);
    }

    kj::ArrayPtr<word> allocateSegment(unsigned minimum) override
    {
        const std::size_t words = std::max<std::size_t>(minimum, capacity_);
        auto *const block = static_cast<word *>(std::calloc(table_words + words, sizeof(word)));
        blocks_.push_back(block);
        return {block + table_words, words};
    }

    Encoded message()
    {
        const auto segments = getSegmentsForOutput();
        if (segments.size() > 1) {
            const kj::Array<word> flat = capnp::messageToFlatArray(*this);
            void *const block = std::malloc(flat.asBytes().size());
            std::memcpy(block, flat.begin(), flat.asBytes().size());
            return encoded_in(block, flat.asBytes().size());
        }
        const uint32_t table[] = {0, uint32_t(segments[0].size())};
        static_assert(sizeof table == table_words * sizeof(word));
        word *const block = std::exchange(blocks_[0], nullptr);
        std::memcpy(block, table, sizeof table);
        return encoded_in(block, sizeof table + segments[0].asBytes().size());
    }

private:
    // The segment table of one segment: how many follow the first, and its size.
    static constexpr std::size_t table_words = 1;

    std::size_t capacity_;
    std::vector<word *> blocks_;
};

// ---- Reading

std::string read(capnp::Data::Reader from) { return {reinterpret_cast<const char *>(from.begin()), from.size()}; }

decltype(Match::param) read_param(cp::Match::Reader from)
{
    switch (from.which()) {
    case cp::Match::SERVICE: {
        Service service;
        const auto elements = from.getService();
        service.elements.reserve(elements.size());
        for (const auto e : elements)
            service.elements.push_back({e.getSip(), e.getSipMask(), e.getDip(), e.getDipMask(), e.getSport(),
                                        e.getSportMask(), e.getDport(), e.getDportMask(), e.getProtocol()});
        return service;
    }
    case cp::Match::LABEL: {
        const auto label = from.getLabel();
        return Label{label.getEthType(), label.getEncapFlag(), label.getEncapTunnelSip(), label.getEncapTunnelDip(),
                     read(label.getLabel())};
    }
    case cp::Match::ETHER_PROTOCOL:
        return EtherProtocol{from.getEtherProtocol()};
    default:
        return Acl{read(from.getAcl())};
    }
}

decltype(Redirect::next_hop) read_next_hop(cp::Redirect::Reader from)
{
    if (from.isL3()) {
        const auto l3 = from.getL3();
        return L3Redirect{l3.getVrf(), l3.getRTableId(), l3.getSip(), l3.getDip()};
    }
    const auto l2 = from.getL2();
    return L2Redirect{l2.getVrf(),          l2.getRTableId(),     l2.getDip(),
                      mac_of(l2.getSmac()), mac_of(l2.getDmac()), l2.getDestIf()};
}

decltype(Action::param) read_param(cp::Action::Reader from)
{
    if (from.isRedirect()) {
        const auto redirect = from.getRedirect();
        return Redirect{redirect.getEncapFlag(), redirect.getInsertLabel(), read(redirect.getLabel()),
                        redirect.getEtype(), read_next_hop(redirect)};
    }
    const auto nat = from.getNatRewrite();
    return NatRewrite{nat.getSrcIp(), nat.getDstIp(), nat.getSrcPort(), nat.getDstPort()};
}

Match read(cp::Match::Reader from) { return {from.getOpMode(), from.getId(), from.getPreMatchId(), read_param(from)}; }
Action read(cp::Action::Reader from) { return {from.getOpMode(), from.getId(), read_param(from)}; }

template <class T, class Objects> std::vector<Shared<T>> read_objects(const Objects &from, Sharing<T> &sharing)
{
    std::vector<Shared<T>> objects(from.size());
    for (unsigned i = 0; i < from.size(); ++i) {
        const auto object = from[i];
        if (object.isRepeat()) {
            objects[i] = sharing.repeat(object.getId());
        } else {
            objects[i] = std::make_shared<const T>(read(object));
            sharing.enter(objects[i]);
        }
    }
    return objects;
}

Pair read(cp::Pair::Reader from, SharedObjects &objects)
{
    const auto matches = from.getMatchGroup();
    const auto actions = from.getActionGroup();
    return {from.getId(),
            from.getOpMode(),
            from.getPrePairId(),
            {matches.getId(), matches.getOpMode(), matches.getLogicalOp(),
             read_objects<Match>(matches.getMatches(), objects.matches)},
            {actions.getId(), actions.getOpMode(), read_objects<Action>(actions.getActions(), objects.actions)}};
}

Policy read(cp::Policy::Reader from, SharedObjects &objects)
{
    Policy policy{from.getVersion(), from.getId(), from.getOpMode(), from.getAppType(), {}, {}};
    policy.pairs.reserve(from.getPairs().size());
    for (const auto pair : from.getPairs())
        policy.pairs.push_back(read(pair, objects));
    policy.interfaces.reserve(from.getInterfaces().size());
    for (const auto i : from.getInterfaces())
        policy.interfaces.push_back({i.getOpMode(), i.getDirection(), i.getInterface(), i.getVlan(), i.getVrf()});
    return policy;
}

// ---- The row

class CapnProto final : public PlainContender {
public:
    Encoded encode() override
    {
        OneBlock builder(last_size_);
        write(builder.initRoot<cp::Message>(), message_, seen_);
        Encoded encoded = builder.message();
        last_size_ = encoded.bytes.size();
        return encoded;
    }

    void *decode(Bytes bytes) override
    {
        objects_.clear();
        capnp::FlatArrayMessageReader reader(
            {reinterpret_cast<const word *>(bytes.data()), bytes.size() / sizeof(word)});
        const auto policies = reader.getRoot<cp::Message>().getPolicies();
        auto *const message = new Message;
        message->policies.reserve(policies.size());
        for (const auto policy : policies)
            message->policies.push_back(read(policy, objects_));
        return message;
    }

private:
    SeenIds seen_;
    SharedObjects objects_;
};

const Enter<CapnProto> row("Cap'n Proto");

} // namespace
} // namespace bench
