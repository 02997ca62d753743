#include "tools/zeld/update.hpp"

#include <set>

namespace zeld {

namespace {

using service::error_not_found;
using service::error_unsupported;

// What people call a record type.
template <class R> const char *name_of() { return record_of<R>.noun; }

// The set of ids that some members have. A request may name 65,535 of them, so they
// are looked up in a set: one pass over the policy is enough.
template <class G> IdSet ids_in(const G &group)
{
    IdSet ids;
    for (const auto *const member : members(group))
        ids.set(member->id);
    return ids;
}

// ---- Pairs

void set_pairs(Policy &policy, const zel_match_action_pair_grp_t &group) { policy.set_pairs(group); }

void set_pair(Policy &policy, const zel_match_action_pair_t &pair) { policy.set_pair(pair); }

void remove_pair(Policy &policy, const zel_match_action_pair_t &pair)
{
    if (policy.pair(pair.id) == nullptr)
        throw Refusal(error_not_found, "policy {} has no pair {}", policy.id(), pair.id);
    policy.remove_pair(pair.id);
}

void remove_pairs(Policy &policy, const zel_match_action_pair_grp_t &given)
{
    for (const zel_match_action_pair_t *const pair : members(given))
        remove_pair(policy, *pair);
}

// ---- Match groups and action groups, which pairs contain

// The pairs whose group has the id of a given one, in order. There must be one at least.
template <class G> std::vector<uint16_t> pairs_with_group(const Policy &policy, const G &given)
{
    std::vector<std::pair<uint64_t, uint16_t>> found;
    Budget::step(policy.num_pairs());
    policy.for_each_pair([&](const Pair &pair) {
        if (group_of<G>(pair.record).id == given.id)
            found.emplace_back(pair.order, pair.record.id);
    });
    if (found.empty())
        throw Refusal(error_not_found, "policy {} has no pair with {} {}", policy.id(), name_of<G>(), given.id);
    std::sort(found.begin(), found.end());
    std::vector<uint16_t> ids(found.size());
    std::transform(found.begin(), found.end(), ids.begin(), [](const auto &pair) { return pair.second; });
    return ids;
}

// All groups of the id are emptied first: they may share objects, which change together.
template <class G> void set_group(Policy &policy, const G &given)
{
    const std::vector<uint16_t> pairs = pairs_with_group(policy, given);
    G empty{};
    empty.id = given.id;
    for (const uint16_t id : pairs)
        policy.set_group(id, empty);
    for (const uint16_t id : pairs)
        policy.set_group(id, given);
}

// A pair always has its two groups, so the members that are given are removed. Each of
// them must be in at least one of the groups, and be given once.
template <class G> void remove_group(Policy &policy, const G &given)
{
    const std::vector<uint16_t> pairs = pairs_with_group(policy, given);
    IdSet present;
    for (const uint16_t pair : pairs)
        for (const uint16_t id : ids_of<G>(*policy.pair(pair)))
            present.set(id);
    for (const auto *const member : members(given)) {
        if (!present[member->id])
            throw Refusal(error_not_found, "{} {} of policy {} has no {} {}", name_of<G>(), given.id, policy.id(),
                          name_of<MemberOf<G>>(), member->id);
        present.reset(member->id);
    }
    const IdSet erased = ids_in(given);
    for (const uint16_t pair : pairs)
        policy.erase_members<G>(pair, erased);
}

// ---- Matches and actions in all groups. G is the type of group that holds them.

template <class G> [[noreturn]] void refuse_unknown(const Policy &policy, uint16_t id)
{
    throw Refusal(error_not_found, "policy {} has no {} {}", policy.id(), name_of<MemberOf<G>>(), id);
}

template <class G> void set_object(Policy &policy, const MemberOf<G> &object)
{
    if (!policy.set_object<G>(object))
        refuse_unknown<G>(policy, object.id);
}

template <class G> void remove_object(Policy &policy, const MemberOf<G> &object)
{
    IdSet erased;
    erased.set(object.id);
    std::vector<uint16_t> pairs;
    policy.for_each_pair([&](const Pair &pair) {
        const auto &ids = ids_of<G>(pair);
        Budget::step(1 + ids.size());
        if (std::find(ids.begin(), ids.end(), object.id) != ids.end())
            pairs.push_back(pair.record.id);
    });
    if (pairs.empty())
        refuse_unknown<G>(policy, object.id);
    for (const uint16_t id : pairs)
        policy.erase_members<G>(id, erased);
}

// ---- Interfaces

void set_interfaces(Policy &policy, const zel_if_group_t &group) { policy.set_interfaces(group); }

void remove_interfaces(Policy &policy, const zel_if_group_t &given)
{
    Budget::step(policy.interfaces().size() + given.num_if);
    const auto key_of = [](const zel_if_element_t &element) {
        return std::tuple(element.direction, element.interface, element.vlan, element.vrf);
    };
    std::set<decltype(key_of({}))> present;
    std::set<decltype(key_of({}))> erased;
    for (const zel_if_element_t &element : policy.interfaces())
        present.insert(key_of(element));
    for (const zel_if_element_t *const element : members(given)) {
        if (present.erase(key_of(*element)) == 0)
            throw Refusal(error_not_found, "policy {} is not bound to interface {}, VLAN {}, VRF {}, direction {}",
                          policy.id(), element->interface, element->vlan, element->vrf, element->direction);
        erased.insert(key_of(*element));
    }
    std::vector<zel_if_element_t> kept;
    kept.reserve(policy.interfaces().size());
    for (const zel_if_element_t &element : policy.interfaces())
        if (!erased.contains(key_of(element)))
            kept.push_back(element);
    policy.set_interfaces(std::move(kept));
}

// ---- Which of them a request calls

template <class R>
void apply(Policy &policy, uint32_t op_code, const void *object, void (*set)(Policy &, const R &),
           void (*remove)(Policy &, const R &))
{
    (op_code == service::op_code_set ? set : remove)(policy, *static_cast<const R *>(object));
}

} // namespace

void update_policy(Policy &policy, uint32_t api_type, uint32_t op_code, const void *object)
{
    using Matches = zel_match_grp_t;
    using Actions = zel_action_grp_t;
    policy.forget_derived();
    switch (api_type) {
    case ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE:
        return apply(policy, op_code, object, set_pairs, remove_pairs);
    case ZEL_API_MATCH_ACTION_PAIR_UPDATE:
        return apply(policy, op_code, object, set_pair, remove_pair);
    case ZEL_API_MATCH_GROUP_UPDATE:
        return apply(policy, op_code, object, set_group<Matches>, remove_group<Matches>);
    case ZEL_API_ACTION_GROUP_UPDATE:
        return apply(policy, op_code, object, set_group<Actions>, remove_group<Actions>);
    case ZEL_API_MATCH_UPDATE:
        return apply(policy, op_code, object, set_object<Matches>, remove_object<Matches>);
    case ZEL_API_ACTION_UPDATE:
        return apply(policy, op_code, object, set_object<Actions>, remove_object<Actions>);
    case ZEL_API_INTERFACE_GROUP_UPDATE:
        return apply(policy, op_code, object, set_interfaces, remove_interfaces);
    default:
        throw Refusal(error_unsupported, "request kind {} is not an update of a part of a policy", api_type);
    }
}

} // namespace zeld
