// What updates mean, as simply as it can be said: a policy is a graph whose groups have
// copies of their members, and every update is a walk over all of it. The service and
// this model have to agree.
#pragma once

#include "policy_notation.hpp"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

namespace test {

using service::Error;

// Overwrites a record with a copy of another.
template <class R> void replace(R &old, const R &with)
{
    const Owned<R> copy = clone(with);
    std::swap(old, *copy);
}

// Removes the members that a predicate selects. Returns how many these were.
template <class G, class Predicate> std::size_t erase_members(G &group, Predicate is_selected)
{
    const auto [count, array] = sequence(group);
    auto *const end = array + count;
    auto *const rest = std::stable_partition(array, end, [&](const auto *member) { return !is_selected(*member); });
    std::for_each(rest, end, [](auto *&member) { Owned<MemberOf<G>>(std::exchange(member, nullptr)); });
    count = static_cast<std::remove_reference_t<decltype(count)>>(rest - array);
    return static_cast<std::size_t>(end - rest);
}

template <class G> G &group_in(zel_match_action_pair_t &pair)
{
    if constexpr (std::is_same_v<G, zel_match_grp_t>)
        return pair.match_group;
    else
        return pair.action_group;
}

class Model {
public:
    // Null when the request was done; nothing has changed otherwise.
    std::optional<Error> apply(const zel_kob_header_t &header, const void *object)
    {
        const Budget unlimited(SIZE_MAX);
        std::map<PolicyKey, Owned<zel_policy_t>> changed;
        for (const auto &[key, policy] : policies)
            changed.emplace(key, clone(*policy));
        std::swap(changed, policies);
        error_.reset();
        dispatch(header, object);
        for (const auto &[key, policy] : policies)
            check(*policy);
        if (error_)
            std::swap(changed, policies);
        return error_;
    }

    std::map<PolicyKey, Owned<zel_policy_t>> policies;

private:
    void refuse(Error error) { error_ = error_.value_or(error); }

    void dispatch(const zel_kob_header_t &header, const void *object)
    {
        const PolicyKey key{header.app_type, header.policy_id};
        if (header.api_type == ZEL_API_POLICY_DELETE)
            return remove(key);
        if (header.op_code != service::op_code_set && header.op_code != service::op_code_remove)
            return refuse(service::error_unsupported);
        if (header.api_type == ZEL_API_POLICY_UPDATE) {
            const auto &policy = *static_cast<const zel_policy_t *>(object);
            return policy.id == key.id ? whole(header, policy) : refuse(service::error_malformed);
        }
        if (header.api_type != ZEL_API_POLICY_LIST_UPDATE)
            return policies.contains(key) ? part(*policies.at(key), header, object) : refuse(service::error_not_found);
        std::set<uint16_t> ids;
        for (const zel_policy_t *const policy : members(*static_cast<const zel_policy_list_t *>(object))) {
            if (!ids.insert(policy->id).second)
                refuse(service::error_conflict);
            whole(header, *policy);
        }
    }

    void whole(const zel_kob_header_t &header, const zel_policy_t &policy)
    {
        const PolicyKey key{header.app_type, policy.id};
        if (header.op_code == service::op_code_remove)
            return remove(key);
        check(policy);
        policies[key] = clone(policy);
    }

    void remove(const PolicyKey &key)
    {
        if (policies.erase(key) == 0)
            refuse(service::error_not_found);
    }

    void part(zel_policy_t &policy, const zel_kob_header_t &header, const void *object)
    {
        const bool is_set = header.op_code == service::op_code_set;
        auto &pairs = policy.match_action_pair_group;
        switch (header.api_type) {
        case ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE: {
            const auto &given = *static_cast<const zel_match_action_pair_grp_t *>(object);
            return is_set ? replace(pairs, given) : remove_given<zel_match_action_pair_grp_t>({&pairs}, given, id_of);
        }
        case ZEL_API_MATCH_ACTION_PAIR_UPDATE: {
            auto *given = static_cast<zel_match_action_pair_t *>(const_cast<void *>(object)); // only read
            return is_set ? set_pair(pairs, *given)
                          : remove_given<zel_match_action_pair_grp_t>({&pairs}, {1, &given}, id_of);
        }
        case ZEL_API_MATCH_GROUP_UPDATE:
            return group<zel_match_grp_t>(pairs, object, is_set);
        case ZEL_API_ACTION_GROUP_UPDATE:
            return group<zel_action_grp_t>(pairs, object, is_set);
        case ZEL_API_MATCH_UPDATE:
            return member<zel_match_grp_t>(pairs, object, is_set);
        case ZEL_API_ACTION_UPDATE:
            return member<zel_action_grp_t>(pairs, object, is_set);
        default: {
            const auto &given = *static_cast<const zel_if_group_t *>(object);
            const auto key_of = [](const zel_if_element_t &element) {
                return std::tuple(element.direction, element.interface, element.vlan, element.vrf);
            };
            return is_set ? replace(policy.if_group, given)
                          : remove_given<zel_if_group_t>({&policy.if_group}, given, key_of);
        }
        }
    }

    static constexpr auto id_of = [](const auto &record) { return record.id; };

    // Every given member has to be in one of the groups, and be given once.
    template <class G, class Key> void remove_given(const std::vector<G *> &groups, const G &given, Key key_of)
    {
        std::set<std::invoke_result_t<Key, const MemberOf<G> &>> keys;
        for (const auto *const member : members(given)) {
            if (!keys.insert(key_of(*member)).second)
                refuse(service::error_not_found);
            bool is_found = false;
            for (const G *const group : groups)
                for (const auto *const old : members(*group))
                    is_found |= key_of(*old) == key_of(*member);
            if (!is_found)
                refuse(service::error_not_found);
        }
        for (G *const group : groups)
            erase_members(*group, [&](const auto &member) { return keys.contains(key_of(member)); });
    }

    static void set_pair(zel_match_action_pair_grp_t &pairs, const zel_match_action_pair_t &given)
    {
        for (zel_match_action_pair_t *const pair : members(pairs))
            if (pair->id == given.id)
                return replace(*pair, given);
        append(pairs, clone(given));
    }

    template <class G> void group(zel_match_action_pair_grp_t &pairs, const void *object, bool is_set)
    {
        const G &given = *static_cast<const G *>(object);
        std::vector<G *> groups;
        for (zel_match_action_pair_t *const pair : members(pairs))
            if (group_in<G>(*pair).id == given.id)
                groups.push_back(&group_in<G>(*pair));
        if (groups.empty())
            return refuse(service::error_not_found);
        if (!is_set)
            return remove_given<G>(groups, given, id_of);
        for (G *const old : groups)
            replace(*old, given);
    }

    template <class G> void member(zel_match_action_pair_grp_t &pairs, const void *object, bool is_set)
    {
        const auto &given = *static_cast<const MemberOf<G> *>(object);
        std::size_t num_found = 0;
        for (zel_match_action_pair_t *const pair : members(pairs)) {
            G &group = group_in<G>(*pair);
            for (MemberOf<G> *const old : members(group)) {
                num_found += old->id == given.id ? 1 : 0;
                if (is_set && old->id == given.id)
                    replace(*old, given);
            }
            if (!is_set)
                erase_members(group, [&](const auto &old) { return old.id == given.id; });
        }
        if (num_found == 0)
            refuse(service::error_not_found);
    }

    // ---- What holds for every policy

    void check(const zel_policy_t &policy)
    {
        std::set<uint16_t> ids;
        if (policy.id == service::stat_all)
            refuse(service::error_malformed);
        for (const zel_match_action_pair_t *const pair : members(policy.match_action_pair_group)) {
            if (pair->id == service::stat_all)
                refuse(service::error_malformed);
            if (!ids.insert(pair->id).second)
                refuse(service::error_conflict);
        }
        check_members<zel_match_grp_t>(policy);
        check_members<zel_action_grp_t>(policy);
    }

    template <class G> void check_members(const zel_policy_t &policy)
    {
        std::map<uint16_t, const MemberOf<G> *> first;
        for (zel_match_action_pair_t *const pair : members(policy.match_action_pair_group))
            for (const MemberOf<G> *const member : members(group_in<G>(*pair)))
                if (!equal(*first.emplace(member->id, member).first->second, *member))
                    refuse(service::error_conflict);
    }

    std::optional<Error> error_;
};

} // namespace test
