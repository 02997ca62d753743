#include "tools/zeld/update.hpp"

#include <set>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace zeld {

namespace {

using service::error_conflict;
using service::error_not_found;
using service::error_unsupported;

// What people call a record type.
template <class R> const char *name_of() { return record_of<R>.noun; }

std::span<zel_match_action_pair_t *const> pairs_of(const zel_policy_t &policy)
{
    return members(policy.match_action_pair_group);
}

// A pair's group by its type.
template <class G> G &group_of(zel_match_action_pair_t &pair)
{
    if constexpr (std::is_same_v<G, zel_match_grp_t>)
        return pair.match_group;
    else
        return pair.action_group;
}

// Removes from some groups the members that have the keys of the given ones. Each
// given member must be in at least one group; refuse(member) throws otherwise.
// Takes n log n time: a request may name 65,535 members.
template <class G, class Key, class Refuse>
void erase_given(std::span<G *const> groups, const G &given, Key key_of, Refuse refuse)
{
    using KeySet = std::set<std::invoke_result_t<Key, const MemberOf<G> &>>;
    KeySet present;
    KeySet erased;
    for (const G *const group : groups)
        for (const auto *const member : members(*group))
            present.insert(key_of(*member));
    for (const auto *const member : members(given)) {
        if (present.erase(key_of(*member)) == 0)
            refuse(*member);
        erased.insert(key_of(*member));
    }
    for (G *const group : groups)
        erase_members(*group, [&](const auto &member) { return erased.contains(key_of(member)); });
}

constexpr auto id_of = [](const auto &record) { return record.id; };

// ---- Pairs

void set_pair(zel_policy_t &policy, const zel_match_action_pair_t &pair)
{
    const auto pairs = pairs_of(policy);
    const auto found = std::find_if(pairs.begin(), pairs.end(), [&](const auto *old) { return old->id == pair.id; });
    if (found != pairs.end())
        replace(**found, pair);
    else
        append(policy.match_action_pair_group, clone(pair));
}

void set_pair_group(zel_policy_t &policy, const zel_match_action_pair_grp_t &group)
{
    replace(policy.match_action_pair_group, group);
}

void remove_pair_group(zel_policy_t &policy, const zel_match_action_pair_grp_t &given)
{
    zel_match_action_pair_grp_t *const groups[] = {&policy.match_action_pair_group};
    erase_given<zel_match_action_pair_grp_t>(groups, given, id_of, [&](const zel_match_action_pair_t &pair) {
        throw Refusal(error_not_found, "policy {} has no pair {}", policy.id, pair.id);
    });
}

void remove_pair(zel_policy_t &policy, const zel_match_action_pair_t &pair)
{
    auto *only = const_cast<zel_match_action_pair_t *>(&pair); // only read below
    remove_pair_group(policy, {1, &only});
}

// ---- Match groups and action groups, which pairs contain

// The groups with the id of a given one. There must be one at least.
template <class G> std::vector<G *> groups_like(const zel_policy_t &policy, const G &given)
{
    std::vector<G *> groups;
    for (zel_match_action_pair_t *const pair : pairs_of(policy))
        if (group_of<G>(*pair).id == given.id)
            groups.push_back(&group_of<G>(*pair));
    if (groups.empty())
        throw Refusal(error_not_found, "policy {} has no pair with {} {}", policy.id, name_of<G>(), given.id);
    return groups;
}

template <class G> void set_group(zel_policy_t &policy, const G &given)
{
    for (G *const group : groups_like(policy, given))
        replace(*group, given);
}

// A pair always has its two groups, so the members that are given are removed.
template <class G> void remove_group(zel_policy_t &policy, const G &given)
{
    const std::vector<G *> groups = groups_like(policy, given);
    erase_given<G>(groups, given, id_of, [&](const MemberOf<G> &member) {
        throw Refusal(error_not_found, "{} {} of policy {} has no {} {}", name_of<G>(), given.id, policy.id,
                      name_of<MemberOf<G>>(), member.id);
    });
}

// ---- Matches and actions in all groups. G is the type of group that holds them.

template <class G> [[noreturn]] void refuse_unknown(const zel_policy_t &policy, uint16_t id)
{
    throw Refusal(error_not_found, "policy {} has no {} {}", policy.id, name_of<MemberOf<G>>(), id);
}

template <class G> void set_object(zel_policy_t &policy, const MemberOf<G> &object)
{
    bool is_found = false;
    for (zel_match_action_pair_t *const pair : pairs_of(policy)) {
        for (MemberOf<G> *const old : members(group_of<G>(*pair))) {
            if (old->id != object.id)
                continue;
            replace(*old, object);
            is_found = true;
        }
    }
    if (!is_found)
        refuse_unknown<G>(policy, object.id);
}

template <class G> void remove_object(zel_policy_t &policy, const MemberOf<G> &object)
{
    bool is_found = false;
    for (zel_match_action_pair_t *const pair : pairs_of(policy)) {
        erase_members(group_of<G>(*pair), [&](const MemberOf<G> &old) {
            is_found |= old.id == object.id;
            return old.id == object.id;
        });
    }
    if (!is_found)
        refuse_unknown<G>(policy, object.id);
}

// ---- Interfaces

void set_if_group(zel_policy_t &policy, const zel_if_group_t &group) { replace(policy.if_group, group); }

void remove_if_group(zel_policy_t &policy, const zel_if_group_t &given)
{
    const auto key_of = [](const zel_if_element_t &element) {
        return std::tuple(element.direction, element.interface, element.vlan, element.vrf);
    };
    zel_if_group_t *const groups[] = {&policy.if_group};
    erase_given<zel_if_group_t>(groups, given, key_of, [&](const zel_if_element_t &element) {
        throw Refusal(error_not_found, "policy {} is not bound to interface {}, VLAN {}, VRF {}, direction {}",
                      policy.id, element.interface, element.vlan, element.vrf, element.direction);
    });
}

// ---- Which of them a request calls

template <class R>
void apply(zel_policy_t &policy, uint32_t op_code, const void *object, void (*set)(zel_policy_t &, const R &),
           void (*remove)(zel_policy_t &, const R &))
{
    (op_code == service::op_code_set ? set : remove)(policy, *static_cast<const R *>(object));
}

// ---- Ids

// The first object of each id, and the pair that contains it.
template <class G> class ObjectsById {
public:
    void add(zel_match_action_pair_t &pair)
    {
        for (const MemberOf<G> *const object : members(group_of<G>(pair))) {
            const auto [entry, is_first] = first_.try_emplace(object->id, First{object, pair.id});
            if (!is_first && !equal(*entry->second.object, *object))
                throw Refusal(error_conflict, "{} {} of pair {} would differ from {} {} of pair {}",
                              name_of<MemberOf<G>>(), object->id, pair.id, name_of<MemberOf<G>>(), object->id,
                              entry->second.pair_id);
        }
    }

private:
    struct First {
        const MemberOf<G> *object;
        uint16_t pair_id;
    };
    std::unordered_map<uint16_t, First> first_;
};

} // namespace

void update_policy(zel_policy_t &policy, uint32_t api_type, uint32_t op_code, const void *object)
{
    using Matches = zel_match_grp_t;
    using Actions = zel_action_grp_t;
    switch (api_type) {
    case ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE:
        return apply(policy, op_code, object, set_pair_group, remove_pair_group);
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
        return apply(policy, op_code, object, set_if_group, remove_if_group);
    default:
        throw Refusal(error_unsupported, "request kind {} is not an update of a part of a policy", api_type);
    }
}

void check_policy(const zel_policy_t &policy)
{
    std::unordered_set<uint16_t> pair_ids;
    ObjectsById<zel_match_grp_t> matches;
    ObjectsById<zel_action_grp_t> actions;
    for (zel_match_action_pair_t *const pair : pairs_of(policy)) {
        if (!pair_ids.insert(pair->id).second)
            throw Refusal(error_conflict, "policy {} would have more than one pair {}", policy.id, pair->id);
        matches.add(*pair);
        actions.add(*pair);
    }
}

} // namespace zeld
