// FlatBuffers, from plain records.  One row verifies a buffer and copies it to plain
// records; the other one visits every field where it lies, for those who need no graph
// and trust the sender.
//
// The builder begins with the room that the last message took, so that it grows only
// once.  Repeats are offsets to the table of the first occurrence.
#include "bench/by_id.hpp"
#include "bench/contender.hpp"

#include "policy_generated.h"

#include <stdexcept>

namespace bench {
namespace {

using flatbuffers::Offset;

// ---- Writing

class Writer {
public:
    void write(flatbuffers::FlatBufferBuilder &builder, const Message &message)
    {
        builder_ = &builder;
        matches_.clear();
        actions_.clear();
        builder.Finish(fb::CreateMessage(builder, vector(policies_, message.policies)));
    }

private:
    // Vectors are written behind what they lead to, so offsets are collected first, in
    // room that is kept.
    template <class O, class Members>
    Offset<flatbuffers::Vector<O>> vector(std::vector<O> &offsets, const Members &members)
    {
        offsets.clear();
        for (const auto &member : members)
            offsets.push_back(write_member(member));
        return builder_->CreateVector(offsets);
    }

    Offset<fb::Match> write_member(const Shared<Match> &match) { return once(matches_, *match); }
    Offset<fb::Action> write_member(const Shared<Action> &action) { return once(actions_, *action); }

    template <class O, class T> O once(ById<O> &written, const T &object)
    {
        if (const O *const earlier = written.find(object.id))
            return *earlier;
        const O offset = write_member(object);
        written.enter(object.id, offset);
        return offset;
    }

    Offset<fb::Match> write_member(const Match &match)
    {
        // The alternatives are in the order of the union.
        const auto type = static_cast<fb::MatchParam>(match.param.index() + 1);
        const auto param = std::visit([&](const auto &alternative) { return write_param(alternative); }, match.param);
        return fb::CreateMatch(*builder_, match.op_mode, match.id, match.pre_match_id, type, param);
    }

    Offset<void> write_param(const Service &service)
    {
        const auto elements = builder_->CreateVectorOfStructs<fb::ServiceElement>(
            service.elements.size(), [&](std::size_t i, fb::ServiceElement *to) {
                const ServiceElement &from = service.elements[i];
                *to = fb::ServiceElement(from.sip, from.sip_mask, from.dip, from.dip_mask, from.sport, from.sport_mask,
                                         from.dport, from.dport_mask, from.protocol);
            });
        return fb::CreateService(*builder_, elements).Union();
    }
    Offset<void> write_param(const Label &label)
    {
        const auto text = builder_->CreateString(label.label);
        return fb::CreateLabel(*builder_, label.eth_type, label.encap_flag, label.encap_tunnel_sip,
                               label.encap_tunnel_dip, text)
            .Union();
    }
    Offset<void> write_param(const EtherProtocol &protocol)
    {
        return fb::CreateEtherProtocol(*builder_, protocol.type).Union();
    }
    Offset<void> write_param(const Acl &acl)
    {
        return fb::CreateAcl(*builder_, builder_->CreateString(acl.acl)).Union();
    }

    Offset<fb::Action> write_member(const Action &action)
    {
        const auto type = static_cast<fb::ActionParam>(action.param.index() + 1);
        const auto param = std::visit([&](const auto &alternative) { return write_param(alternative); }, action.param);
        return fb::CreateAction(*builder_, action.op_mode, action.id, type, param);
    }

    Offset<void> write_param(const Redirect &redirect)
    {
        const auto label = builder_->CreateString(redirect.label);
        fb::RedirectBuilder table(*builder_);
        table.add_encap_flag(redirect.encap_flag);
        table.add_insert_label(redirect.insert_label);
        table.add_label(label);
        table.add_etype(redirect.etype);
        if (const auto *const l3 = std::get_if<L3Redirect>(&redirect.next_hop)) {
            const fb::L3Redirect next_hop(l3->vrf, l3->r_table_id, l3->sip, l3->dip);
            table.add_l3(&next_hop);
        } else {
            const auto &l2 = std::get<L2Redirect>(redirect.next_hop);
            const fb::L2Redirect next_hop(l2.vrf, l2.r_table_id, l2.dip, flatbuffers::make_span(l2.smac),
                                          flatbuffers::make_span(l2.dmac), l2.dest_if);
            table.add_l2(&next_hop);
        }
        return table.Finish().Union();
    }
    Offset<void> write_param(const NatRewrite &nat)
    {
        return fb::CreateNatRewrite(*builder_, nat.src_ip, nat.dst_ip, nat.src_port, nat.dst_port).Union();
    }

    Offset<fb::Pair> write_member(const Pair &pair)
    {
        const MatchGroup &matches = pair.match_group;
        const auto match_group = fb::CreateMatchGroup(*builder_, matches.id, matches.op_mode, matches.logical_op,
                                                      vector(match_offsets_, matches.matches));
        const ActionGroup &actions = pair.action_group;
        const auto action_group =
            fb::CreateActionGroup(*builder_, actions.id, actions.op_mode, vector(action_offsets_, actions.actions));
        return fb::CreatePair(*builder_, pair.id, pair.op_mode, pair.pre_pair_id, match_group, action_group);
    }

    Offset<fb::Policy> write_member(const Policy &policy)
    {
        const auto interfaces = builder_->CreateVectorOfStructs<fb::Interface>(
            policy.interfaces.size(), [&](std::size_t i, fb::Interface *to) {
                const Interface &from = policy.interfaces[i];
                *to = fb::Interface(from.op_mode, from.direction, from.interface, from.vlan, from.vrf);
            });
        return fb::CreatePolicy(*builder_, policy.version, policy.id, policy.op_mode, policy.app_type,
                                vector(pairs_, policy.pairs), interfaces);
    }

    flatbuffers::FlatBufferBuilder *builder_ = nullptr;
    ById<Offset<fb::Match>> matches_;
    ById<Offset<fb::Action>> actions_;
    std::vector<Offset<fb::Match>> match_offsets_;
    std::vector<Offset<fb::Action>> action_offsets_;
    std::vector<Offset<fb::Pair>> pairs_;
    std::vector<Offset<fb::Policy>> policies_;
};

// ---- Copying to records

decltype(Match::param) read_param(const fb::Match &from)
{
    switch (from.param_type()) {
    case fb::MatchParam_Service: {
        Service service;
        const auto &elements = *from.param_as_Service()->elements();
        service.elements.reserve(elements.size());
        for (const fb::ServiceElement *e : elements)
            service.elements.push_back({e->sip(), e->sip_mask(), e->dip(), e->dip_mask(), e->sport(), e->sport_mask(),
                                        e->dport(), e->dport_mask(), e->protocol()});
        return service;
    }
    case fb::MatchParam_Label: {
        const fb::Label &label = *from.param_as_Label();
        return Label{label.eth_type(), label.encap_flag(), label.encap_tunnel_sip(), label.encap_tunnel_dip(),
                     label.label()->str()};
    }
    case fb::MatchParam_EtherProtocol:
        return EtherProtocol{from.param_as_EtherProtocol()->type()};
    default:
        return Acl{from.param_as_Acl()->acl()->str()};
    }
}

Mac read(const flatbuffers::Array<uint8_t, 6> &from)
{
    Mac mac;
    std::copy_n(from.data(), mac.size(), mac.begin());
    return mac;
}

decltype(Redirect::next_hop) read_next_hop(const fb::Redirect &from)
{
    if (const fb::L3Redirect *const l3 = from.l3())
        return L3Redirect{l3->vrf(), l3->r_table_id(), l3->sip(), l3->dip()};
    const fb::L2Redirect &l2 = *from.l2();
    return L2Redirect{l2.vrf(), l2.r_table_id(), l2.dip(), read(*l2.smac()), read(*l2.dmac()), l2.dest_if()};
}

decltype(Action::param) read_param(const fb::Action &from)
{
    if (const fb::Redirect *const redirect = from.param_as_Redirect())
        return Redirect{redirect->encap_flag(), redirect->insert_label(), redirect->label()->str(), redirect->etype(),
                        read_next_hop(*redirect)};
    const fb::NatRewrite &nat = *from.param_as_NatRewrite();
    return NatRewrite{nat.src_ip(), nat.dst_ip(), nat.src_port(), nat.dst_port()};
}

Match read(const fb::Match &from) { return {from.op_mode(), from.id(), from.pre_match_id(), read_param(from)}; }
Action read(const fb::Action &from) { return {from.op_mode(), from.id(), read_param(from)}; }

template <class T, class Objects> std::vector<Shared<T>> read_objects(const Objects &from, Sharing<T> &sharing)
{
    std::vector<Shared<T>> objects(from.size());
    for (uint32_t i = 0; i < from.size(); ++i) {
        objects[i] = sharing.repeat(from.Get(i)->id());
        if (objects[i] == nullptr) {
            objects[i] = std::make_shared<const T>(read(*from.Get(i)));
            sharing.enter(objects[i]);
        }
    }
    return objects;
}

Pair read(const fb::Pair &from, SharedObjects &objects)
{
    const fb::MatchGroup &matches = *from.match_group();
    const fb::ActionGroup &actions = *from.action_group();
    return {from.id(),
            from.op_mode(),
            from.pre_pair_id(),
            {matches.id(), matches.op_mode(), matches.logical_op(),
             read_objects<Match>(*matches.matches(), objects.matches)},
            {actions.id(), actions.op_mode(), read_objects<Action>(*actions.actions(), objects.actions)}};
}

Policy read(const fb::Policy &from, SharedObjects &objects)
{
    Policy policy{from.version(), from.id(), from.op_mode(), from.app_type(), {}, {}};
    policy.pairs.reserve(from.pairs()->size());
    for (const fb::Pair *pair : *from.pairs())
        policy.pairs.push_back(read(*pair, objects));
    policy.interfaces.reserve(from.interfaces()->size());
    for (const fb::Interface *i : *from.interfaces())
        policy.interfaces.push_back({i->op_mode(), i->direction(), i->interface(), i->vlan(), i->vrf()});
    return policy;
}

Message read(const fb::Message &from, SharedObjects &objects)
{
    objects.clear();
    Message message;
    message.policies.reserve(from.policies()->size());
    for (const fb::Policy *policy : *from.policies())
        message.policies.push_back(read(*policy, objects));
    return message;
}

// ---- Visiting every field: adds up all numbers, and of texts the length and the ends

uint32_t sum_text(std::string_view text)
{
    return uint32_t(text.size()) + (text.empty() ? 0u : uint8_t(text.front()) + uint8_t(text.back()));
}

uint32_t sum(const flatbuffers::String &text) { return sum_text(text.string_view()); }

uint32_t sum(const flatbuffers::Array<uint8_t, 6> &mac)
{
    uint32_t sum = 0;
    for (const uint8_t byte : mac)
        sum += byte;
    return sum;
}

uint32_t sum_param(const fb::Match &match)
{
    switch (match.param_type()) {
    case fb::MatchParam_Service: {
        uint32_t sum = 0;
        for (const fb::ServiceElement *e : *match.param_as_Service()->elements())
            sum += e->sip() + e->sip_mask() + e->dip() + e->dip_mask() + e->sport() + e->sport_mask() + e->dport() +
                   e->dport_mask() + e->protocol();
        return sum;
    }
    case fb::MatchParam_Label: {
        const fb::Label &label = *match.param_as_Label();
        return label.eth_type() + label.encap_flag() + label.encap_tunnel_sip() + label.encap_tunnel_dip() +
               sum(*label.label());
    }
    case fb::MatchParam_EtherProtocol:
        return match.param_as_EtherProtocol()->type();
    default:
        return sum(*match.param_as_Acl()->acl());
    }
}

uint32_t sum(const fb::Match &match) { return match.op_mode() + match.id() + match.pre_match_id() + sum_param(match); }

uint32_t sum_next_hop(const fb::Redirect &redirect)
{
    if (const fb::L3Redirect *const l3 = redirect.l3())
        return l3->vrf() + l3->r_table_id() + l3->sip() + l3->dip();
    const fb::L2Redirect &l2 = *redirect.l2();
    return l2.vrf() + l2.r_table_id() + l2.dip() + sum(*l2.smac()) + sum(*l2.dmac()) + l2.dest_if();
}

uint32_t sum(const fb::Action &action)
{
    const uint32_t own = action.op_mode() + action.id();
    if (const fb::Redirect *const redirect = action.param_as_Redirect())
        return own + redirect->encap_flag() + redirect->insert_label() + sum(*redirect->label()) + redirect->etype() +
               sum_next_hop(*redirect);
    const fb::NatRewrite &nat = *action.param_as_NatRewrite();
    return own + nat.src_ip() + nat.dst_ip() + nat.src_port() + nat.dst_port();
}

uint32_t sum(const fb::Pair &pair)
{
    const fb::MatchGroup &matches = *pair.match_group();
    const fb::ActionGroup &actions = *pair.action_group();
    uint32_t total = pair.id() + pair.op_mode() + pair.pre_pair_id() + matches.id() + matches.op_mode() +
                     matches.logical_op() + actions.id() + actions.op_mode();
    for (const fb::Match *match : *matches.matches())
        total += sum(*match);
    for (const fb::Action *action : *actions.actions())
        total += sum(*action);
    return total;
}

uint32_t sum(const fb::Message &message)
{
    uint32_t total = 0;
    for (const fb::Policy *policy : *message.policies()) {
        total += policy->version() + policy->id() + policy->op_mode() + policy->app_type();
        for (const fb::Pair *pair : *policy->pairs())
            total += sum(*pair);
        for (const fb::Interface *i : *policy->interfaces())
            total += i->op_mode() + i->direction() + i->interface() + i->vlan() + i->vrf();
    }
    return total;
}

// The same of plain records, to hold it against.
template <class T> uint32_t sum_of(const T &value)
{
    uint32_t total = 0;
    const auto add = [&](const auto &part) { total += sum_of(part); };
    if constexpr (std::is_same_v<T, std::string>)
        total = sum_text(value);
    else if constexpr (std::is_integral_v<T>)
        total = value;
    else if constexpr (is_shared<T>)
        add(*value);
    else if constexpr (is_variant<T>)
        std::visit(add, value);
    else if constexpr (Record<T>)
        for_each_member(value, add);
    else
        std::ranges::for_each(value, add);
    return total;
}

// ---- The rows

class FlatBuffers : public PlainContender {
public:
    Encoded encode() override
    {
        flatbuffers::FlatBufferBuilder builder(last_size_);
        writer_.write(builder, message_);
        last_size_ = builder.GetSize();
        std::size_t capacity = 0;
        std::size_t offset = 0;
        uint8_t *const block = builder.ReleaseRaw(capacity, offset);
        return {{block + offset, capacity - offset}, {block, [](void *p) { delete[] static_cast<uint8_t *>(p); }}};
    }

    void *decode(Bytes bytes) override
    {
        flatbuffers::Verifier verifier(bytes.data(), bytes.size());
        if (!fb::VerifyMessageBuffer(verifier))
            throw std::runtime_error("not a buffer");
        return new Message(read(*fb::GetMessage(bytes.data()), objects_));
    }

protected:
    SharedObjects objects_;

private:
    Writer writer_;
};

class Lazy final : public FlatBuffers {
public:
    void *decode(Bytes bytes) override
    {
        const fb::Message *const message = fb::GetMessage(bytes.data());
        sum_ = sum(*message);
        return const_cast<fb::Message *>(message);
    }

    void release(void *) override {}

    Message neutral(const void *graph) override
    {
        Message message = read(*static_cast<const fb::Message *>(graph), objects_);
        if (sum_of(message) != sum_)
            throw std::runtime_error("not every field was visited");
        return message;
    }

private:
    uint32_t sum_ = 0;
};

const Enter<FlatBuffers> row("FlatBuffers, verify and copy");
const Enter<Lazy> lazy_row("FlatBuffers, lazy walk");

} // namespace
} // namespace bench
