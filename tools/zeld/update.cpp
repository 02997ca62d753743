#include "tools/zeld/update.hpp"

#include <unordered_map>
#include <unordered_set>

namespace zeld {

namespace {

using service::error_conflict;
using service::error_not_found;
using service::error_unsupported;

template <class R> constexpr const char *name_of = "";
template <> constexpr const char *name_of<zel_match_t> = "match";
template <> constexpr const char *name_of<zel_action_t> = "action";
template <> constexpr const char *name_of<zel_match_grp_t> = "match group";
template <> constexpr const char *name_of<zel_action_grp_t> = "action group";

template <class R> auto has_id(uint16_t id)
{
    return [id](const R &record) { return record.id == id; };
}

std::span<zel_match_action_pair_t *const> pairs_of(const zel_policy_t &policy)
{
    return members(policy.match_action_pair_group);
}

// ---- Pairs

void set_pair(zel_policy_t &policy, const zel_match_action_pair_t &pair)
{
    const auto pairs = pairs_of(policy);
    const auto place = std::find_if(pairs.begin(), pairs.end(), [&](const auto *old) { return old->id == pair.id; });
    if (place != pairs.end())
        replace(**place, pair);
    else
        append(policy.match_action_pair_group, clone(pair));
}

void remove_pair(zel_policy_t &policy, uint16_t id)
{
    if (erase_members(policy.match_action_pair_group, has_id<zel_match_action_pair_t>(id)) == 0)
        throw Refusal(error_not_found, "policy {} has no pair {}", policy.id, id);
}

void set_pair_group(zel_policy_t &policy, const zel_match_action_pair_grp_t &group)
{
    replace(policy.match_action_pair_group, group);
}

void remove_pair_group(zel_policy_t &policy, const zel_match_action_pair_grp_t &group)
{
    for (const zel_match_action_pair_t *const pair : members(group))
        remove_pair(policy, pair->id);
}

// ---- Groups that pairs embed.  Group is the pair's member.

template <auto Group, class Edit>
void edit_groups(zel_policy_t &policy, const zel::Value<Group> &given, const Edit &edit)
{
    bool is_found = false;
    for (zel_match_action_pair_t *const pair : pairs_of(policy)) {
        if ((pair->*Group).id != given.id)
            continue;
        is_found = true;
        edit(pair->*Group);
    }
    if (!is_found)
        throw Refusal(error_not_found, "policy {} has no pair with {} {}", policy.id, name_of<zel::Value<Group>>,
                      given.id);
}

template <auto Group> void set_group(zel_policy_t &policy, const zel::Value<Group> &given)
{
    edit_groups<Group>(policy, given, [&](auto &group) { replace(group, given); });
}

// A pair cannot be without its group, so what goes is the members that are named.
template <auto Group> void remove_group(zel_policy_t &policy, const zel::Value<Group> &given)
{
    using Member = MemberOf<zel::Value<Group>>;
    edit_groups<Group>(policy, given, [](auto &) {}); // the group has to be there even if it names nothing
    for (const Member *const member : members(given)) {
        std::size_t num_removed = 0;
        edit_groups<Group>(policy, given,
                           [&](auto &group) { num_removed += erase_members(group, has_id<Member>(member->id)); });
        if (num_removed == 0)
            throw Refusal(error_not_found, "{} {} of policy {} has no {} {}", name_of<zel::Value<Group>>, given.id,
                          policy.id, name_of<Member>, member->id);
    }
}

// ---- Matches and actions, wherever they stand.  Group is the pair's member that holds them.

template <auto Group> using MemberIn = MemberOf<zel::Value<Group>>;

template <auto Group> [[noreturn]] void refuse_unknown(const zel_policy_t &policy, uint16_t id)
{
    throw Refusal(error_not_found, "policy {} has no {} {}", policy.id, name_of<MemberIn<Group>>, id);
}

template <auto Group> void set_object(zel_policy_t &policy, const MemberIn<Group> &object)
{
    bool is_found = false;
    for (zel_match_action_pair_t *const pair : pairs_of(policy)) {
        for (MemberIn<Group> *const old : members(pair->*Group)) {
            if (old->id != object.id)
                continue;
            replace(*old, object);
            is_found = true;
        }
    }
    if (!is_found)
        refuse_unknown<Group>(policy, object.id);
}

template <auto Group> void remove_object(zel_policy_t &policy, const MemberIn<Group> &object)
{
    std::size_t num_removed = 0;
    for (zel_match_action_pair_t *const pair : pairs_of(policy))
        num_removed += erase_members(pair->*Group, has_id<MemberIn<Group>>(object.id));
    if (num_removed == 0)
        refuse_unknown<Group>(policy, object.id);
}

// ---- Interfaces

void set_if_group(zel_policy_t &policy, const zel_if_group_t &group) { replace(policy.if_group, group); }

void remove_if_group(zel_policy_t &policy, const zel_if_group_t &group)
{
    for (const zel_if_element_t *const given : members(group)) {
        const auto is_same = [given](const zel_if_element_t &element) {
            return element.direction == given->direction && element.interface == given->interface &&
                   element.vlan == given->vlan && element.vrf == given->vrf;
        };
        if (erase_members(policy.if_group, is_same) == 0)
            throw Refusal(error_not_found, "policy {} is not bound to interface {}, VLAN {}, VRF {}, direction {}",
                          policy.id, given->interface, given->vlan, given->vrf, given->direction);
    }
}

// ---- Which is done for a request

template <class R>
void apply(zel_policy_t &policy, uint32_t op_code, const void *object, void (*set)(zel_policy_t &, const R &),
           void (*remove)(zel_policy_t &, const R &))
{
    (op_code == service::op_code_set ? set : remove)(policy, *static_cast<const R *>(object));
}

void remove_pair_by_id(zel_policy_t &policy, const zel_match_action_pair_t &pair) { remove_pair(policy, pair.id); }

// ---- Ids

// The objects of one kind by id, and the pair that each was first met in.
template <auto Group> class Objects {
public:
    void add(const zel_match_action_pair_t &pair)
    {
        for (const MemberIn<Group> *const object : members(pair.*Group)) {
            const auto [place, is_first] = first_.try_emplace(object->id, First{object, pair.id});
            if (!is_first && !equal(*place->second.object, *object))
                throw Refusal(error_conflict, "{} {} of pair {} would differ from {} {} of pair {}",
                              name_of<MemberIn<Group>>, object->id, pair.id, name_of<MemberIn<Group>>, object->id,
                              place->second.pair_id);
        }
    }

private:
    struct First {
        const MemberIn<Group> *object;
        uint16_t pair_id;
    };
    std::unordered_map<uint16_t, First> first_;
};

} // namespace

void update_policy(zel_policy_t &policy, uint32_t api_type, uint32_t op_code, const void *object)
{
    constexpr auto match_group = &zel_match_action_pair_t::match_group;
    constexpr auto action_group = &zel_match_action_pair_t::action_group;
    switch (api_type) {
    case ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE:
        return apply(policy, op_code, object, set_pair_group, remove_pair_group);
    case ZEL_API_MATCH_ACTION_PAIR_UPDATE:
        return apply(policy, op_code, object, set_pair, remove_pair_by_id);
    case ZEL_API_MATCH_GROUP_UPDATE:
        return apply(policy, op_code, object, set_group<match_group>, remove_group<match_group>);
    case ZEL_API_ACTION_GROUP_UPDATE:
        return apply(policy, op_code, object, set_group<action_group>, remove_group<action_group>);
    case ZEL_API_MATCH_UPDATE:
        return apply(policy, op_code, object, set_object<match_group>, remove_object<match_group>);
    case ZEL_API_ACTION_UPDATE:
        return apply(policy, op_code, object, set_object<action_group>, remove_object<action_group>);
    case ZEL_API_INTERFACE_GROUP_UPDATE:
        return apply(policy, op_code, object, set_if_group, remove_if_group);
    default:
        throw Refusal(error_unsupported, "request kind {} is not an update of a part of a policy", api_type);
    }
}

void check_policy(const zel_policy_t &policy)
{
    std::unordered_set<uint16_t> pair_ids;
    Objects<&zel_match_action_pair_t::match_group> matches;
    Objects<&zel_match_action_pair_t::action_group> actions;
    for (const zel_match_action_pair_t *const pair : pairs_of(policy)) {
        if (!pair_ids.insert(pair->id).second)
            throw Refusal(error_conflict, "policy {} would have more than one pair {}", policy.id, pair->id);
        matches.add(*pair);
        actions.add(*pair);
    }
}

} // namespace zeld
