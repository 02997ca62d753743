#include "tools/zeld/policy.hpp"

#include <algorithm>

namespace zeld {

namespace {

// Bytes that a pair takes: itself, its counters, its entry and its rule.
std::size_t size_of(const Pair &pair)
{
    constexpr std::size_t control_block = 16;
    const std::size_t members = pair.matches.size() + pair.actions.size();
    return sizeof(Pair) + sizeof(Counters) + 2 * control_block + 4 * block_overhead + IdMap<PairRef>::entry_size +
           sizeof(const Pair *) + members * sizeof(uint16_t) + Classifier::size_of_rule(pair.matches.size());
}

// A policy in the service's map.
constexpr std::size_t map_node = 96;

template <class G> G without_members(G group)
{
    sequence(group) = std::tuple(0, nullptr);
    return group;
}

} // namespace

Policy::Policy(const zel_policy_t &given) : record_(given)
{
    if (given.id == service::stat_all)
        throw Refusal(service::error_malformed, "policy id {} stands for all policies", given.id);
    record_.match_action_pair_group = {};
    record_.if_group = {};
    set_interfaces(given.if_group);
    set_pairs(given.match_action_pair_group);
}

std::span<const zel_if_element_t> Policy::interfaces() const { return *interfaces_; }

const Pair *Policy::pair(uint16_t id) const
{
    if (const PairRef *const found = pairs_.find(id))
        return found->get();
    return nullptr;
}

std::vector<const Pair *> Policy::pairs_in_order() const
{
    std::vector<const Pair *> pairs;
    pairs.reserve(num_pairs_);
    for_each_pair([&](const Pair &pair) { pairs.push_back(&pair); });
    std::sort(pairs.begin(), pairs.end(), [](const Pair *a, const Pair *b) { return a->order < b->order; });
    return pairs;
}

std::size_t Policy::encoded_size() const
{
    const EncodedSizes &sizes = encoded_sizes();
    return sizes.policy + sizes.pair * num_pairs_ + sizes.interface * interfaces_->size() + matches_.encoded() +
           actions_.encoded();
}

std::size_t Policy::held() const
{
    return sizeof(Policy) + map_node + 3 * IdMap<PairRef>::base_size + pairs_held_ + matches_.held() + actions_.held() +
           interfaces_->size() * (sizeof(zel_if_element_t) + Classifier::size_of_interface) +
           (message != nullptr ? message->size() + sizeof(Bytes) + 2 * block_overhead : 0) + sizeof(Compiled);
}

const Policy::Compiled &Policy::compiled() const
{
    if (compiled_ == nullptr)
        compiled_ =
            std::make_shared<const Compiled>(Compiled{Classifier(PolicyGraph(*this).policy()), pairs_in_order()});
    return *compiled_;
}

const Pair *Policy::classify(const service::PacketHeader &packet, const PackedHeader &fields) const
{
    const uint32_t found = compiled().classifier.classify(packet, fields);
    return found != Classifier::none ? compiled().pairs[found] : nullptr;
}

void Policy::forget_derived()
{
    message = nullptr;
    compiled_ = nullptr;
}

template <> Objects<zel_match_t> &Policy::objects<zel_match_grp_t>() { return matches_; }
template <> Objects<zel_action_t> &Policy::objects<zel_action_grp_t>() { return actions_; }

// ---- Changes

// Says which pairs give an id to two objects: the first one that has it, and this one.
template <class G> void Policy::refuse_other(uint16_t pair_id, uint64_t order, uint16_t id) const
{
    std::pair<uint64_t, uint16_t> other{order, pair_id};
    bool is_found = false;
    for_each_pair([&](const Pair &pair) {
        Budget::step(ids_of<G>(pair).size());
        const auto &ids = ids_of<G>(pair);
        if (std::find(ids.begin(), ids.end(), id) == ids.end() || (is_found && pair.order > other.first))
            return;
        other = {pair.order, pair.record.id};
        is_found = true;
    });
    const std::pair<uint64_t, uint16_t> here{order, pair_id};
    const char *const noun = record_of<MemberOf<G>>.noun;
    throw Refusal(service::error_conflict, "{} {} of pair {} would differ from {} {} of pair {}", noun, id,
                  std::max(here, other).second, noun, id, std::min(here, other).second);
}

template <class G> std::vector<uint16_t> Policy::add_members(uint16_t pair_id, uint64_t order, const G &given)
{
    std::vector<uint16_t> ids;
    const auto objects_given = members(given);
    Budget::charge(objects_given.size() * sizeof(uint16_t));
    ids.reserve(objects_given.size());
    for (const auto *const object : objects_given) {
        if (!objects<G>().add(*object))
            refuse_other<G>(pair_id, order, object->id);
        ids.push_back(object->id);
    }
    return ids;
}

void Policy::place(Pair pair)
{
    Budget::charge(size_of(pair));
    pairs_held_ += size_of(pair);
    ++num_pairs_;
    PairRef &entry = pairs_.edit(pair.record.id);
    entry = std::make_shared<const Pair>(std::move(pair));
}

void Policy::displace(const Pair &pair)
{
    pairs_held_ -= size_of(pair);
    --num_pairs_;
}

void Policy::add_pair(const zel_match_action_pair_t &given, uint64_t order, std::shared_ptr<Counters> counters)
{
    if (given.id == service::stat_all)
        throw Refusal(service::error_malformed, "pair id {} stands for all pairs", given.id);
    Pair pair{given};
    pair.record.match_group = without_members(given.match_group);
    pair.record.action_group = without_members(given.action_group);
    pair.matches = add_members(given.id, order, given.match_group);
    pair.actions = add_members(given.id, order, given.action_group);
    pair.order = order;
    pair.counters = counters != nullptr ? std::move(counters) : std::make_shared<Counters>();
    place(std::move(pair));
}

void Policy::remove_pair(uint16_t id)
{
    Budget::step();
    const PairRef pair = *pairs_.find(id);
    for (const uint16_t match : pair->matches)
        matches_.drop(match);
    for (const uint16_t action : pair->actions)
        actions_.drop(action);
    displace(*pair);
    pairs_.erase(id);
}

void Policy::set_pair(const zel_match_action_pair_t &given)
{
    const Pair *const old = pair(given.id);
    if (old == nullptr)
        return add_pair(given, next_order_++, nullptr);
    const uint64_t order = old->order;
    std::shared_ptr<Counters> counters = old->counters;
    remove_pair(given.id);
    add_pair(given, order, std::move(counters));
}

// Pairs that were there before keep their counters.
void Policy::set_pairs(const zel_match_action_pair_grp_t &given)
{
    const IdMap<PairRef> old = std::exchange(pairs_, {});
    matches_ = {};
    actions_ = {};
    num_pairs_ = 0;
    pairs_held_ = 0;
    for (const zel_match_action_pair_t *const one : members(given)) {
        Budget::step();
        if (pair(one->id) != nullptr)
            throw Refusal(service::error_conflict, "policy {} would have more than one pair {}", id(), one->id);
        const PairRef *const before = old.find(one->id);
        add_pair(*one, next_order_++, before != nullptr ? (*before)->counters : nullptr);
    }
}

void Policy::set_frame(const service::PolicyFrame &fields, std::span<const uint16_t> order)
{
    record_.version = fields.version;
    record_.op_mode = fields.op_mode;
    record_.app_type = fields.app_type;
    const auto all = static_cast<std::size_t>(num_pairs_);
    IdSet ids;
    for (const uint16_t id : order)
        if (pair(id) == nullptr || ids.test(id))
            throw Refusal(service::error_not_found, "policy {} has no pair {}, or it was named before", this->id(), id);
        else
            ids.set(id);
    if (!order.empty() && order.size() != all)
        throw Refusal(service::error_malformed, "{} pairs in order, and policy {} has {}", order.size(), id(), all);
    forget_derived();
    for (const uint16_t id : order) {
        Budget::step();
        Pair moved = **pairs_.find(id);
        displace(moved);
        moved.order = next_order_++;
        place(std::move(moved));
    }
}

void Policy::set_interfaces(const zel_if_group_t &given)
{
    std::vector<zel_if_element_t> interfaces;
    interfaces.reserve(given.num_if);
    for (const zel_if_element_t *const element : members(given))
        interfaces.push_back(*element);
    set_interfaces(std::move(interfaces));
}

void Policy::set_interfaces(std::vector<zel_if_element_t> interfaces)
{
    Budget::step(interfaces.size());
    Budget::charge(interfaces.size() * sizeof(zel_if_element_t));
    interfaces_ = std::make_shared<const std::vector<zel_if_element_t>>(std::move(interfaces));
}

template <class G> void Policy::set_group(uint16_t pair_id, const G &given)
{
    const PairRef old = *pairs_.find(pair_id);
    Pair pair = *old;
    for (const uint16_t id : ids_of<G>(*old))
        objects<G>().drop(id);
    displace(*old);
    group_of<G>(pair.record) = without_members(given);
    ids_of<G>(pair) = add_members(pair_id, pair.order, given);
    place(std::move(pair));
}
template void Policy::set_group(uint16_t, const zel_match_grp_t &);
template void Policy::set_group(uint16_t, const zel_action_grp_t &);

template <class G> void Policy::erase_members(uint16_t pair_id, const IdSet &erased)
{
    const PairRef old = *pairs_.find(pair_id);
    std::vector<uint16_t> kept;
    for (const uint16_t id : ids_of<G>(*old)) {
        Budget::step();
        if (erased[id])
            objects<G>().drop(id);
        else
            kept.push_back(id);
    }
    if (kept.size() == ids_of<G>(*old).size())
        return;
    Pair pair = *old;
    displace(*old);
    ids_of<G>(pair) = std::vector<uint16_t>(kept.begin(), kept.end()); // without room to spare
    place(std::move(pair));
}
template void Policy::erase_members<zel_match_grp_t>(uint16_t, const IdSet &);
template void Policy::erase_members<zel_action_grp_t>(uint16_t, const IdSet &);

// ---- As the library's records

PolicyGraph::PolicyGraph(const Policy &policy) : policy_(policy.record())
{
    const std::vector<const Pair *> pairs = policy.pairs_in_order();
    std::size_t num_matches = 0;
    std::size_t num_actions = 0;
    for (const Pair *const pair : pairs) {
        num_matches += pair->matches.size();
        num_actions += pair->actions.size();
    }
    matches_.reserve(num_matches); // so that no member moves
    actions_.reserve(num_actions);
    pairs_.reserve(pairs.size());
    // The records have no pointers to const, and are only read.
    for (const Pair *const pair : pairs) {
        zel_match_action_pair_t &record = pairs_.emplace_back(pair->record);
        sequence(record.match_group) = std::tuple(pair->matches.size(), matches_.data() + matches_.size());
        sequence(record.action_group) = std::tuple(pair->actions.size(), actions_.data() + actions_.size());
        for (const uint16_t id : pair->matches)
            matches_.push_back(const_cast<zel_match_t *>(&policy.match(id)));
        for (const uint16_t id : pair->actions)
            actions_.push_back(const_cast<zel_action_t *>(&policy.action(id)));
        pair_pointers_.push_back(&record);
    }
    for (const zel_if_element_t &element : policy.interfaces())
        interfaces_.push_back(const_cast<zel_if_element_t *>(&element));
    sequence(policy_.match_action_pair_group) = std::tuple(pair_pointers_.size(), pair_pointers_.data());
    sequence(policy_.if_group) = std::tuple(interfaces_.size(), interfaces_.data());
}

} // namespace zeld
