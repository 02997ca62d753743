// Policies as a line of text, so that tests can state them and compare them:
//
//     1@3:5=80,6=443/7=100 2@4:5=80/ |1 2
//
// is pair 1 with match group and action group 3, whose matches 5 and 6 are for
// Ethernet types 80 and 443 and whose action 7 sets VRF 100, and pair 2; bound to
// interfaces 1 and 2.
#pragma once

#include "tools/zeld/policy.hpp"

#include <fmt/format.h>
#include <random>
#include <sstream>
#include <string>

namespace test {

using namespace zeld;

inline std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        if (!part.empty())
            parts.push_back(part);
    return parts;
}

inline uint16_t number(const std::string &text) { return static_cast<uint16_t>(std::stoul(text)); }

// The parts before and behind the first separator.
inline std::pair<std::string, std::string> halves(const std::string &text, char separator)
{
    const size_t at = text.find(separator);
    return at == std::string::npos ? std::pair(text, std::string())
                                   : std::pair(text.substr(0, at), text.substr(at + 1));
}

template <class G> void append(G &group, Owned<MemberOf<G>> member)
{
    const auto [count, array] = sequence(group);
    auto *const larger = tools::allocate<MemberOf<G> *>(std::size_t{count} + 1);
    std::copy_n(array, count, larger);
    larger[count++] = member.release();
    std::free(static_cast<void *>(std::exchange(array, larger)));
}

template <class R> Owned<R> make() { return Owned<R>(tools::allocate<R>()); }

template <class G, class Fill> void fill_group(G &group, uint16_t id, const std::string &text, Fill fill)
{
    group.id = id;
    for (const std::string &part : split(text, ',')) {
        const auto [member_id, value] = halves(part, '=');
        auto member = make<MemberOf<G>>();
        member->id = number(member_id);
        fill(*member, number(value));
        append(group, std::move(member));
    }
}

inline Owned<zel_policy_t> policy(uint16_t id, const std::string &text)
{
    auto result = make<zel_policy_t>();
    result->id = id;
    const auto [pairs, interfaces] = halves(text, '|');
    for (const std::string &part : split(pairs, ' ')) {
        auto pair = make<zel_match_action_pair_t>();
        const auto [ids, content] = halves(part, ':');
        const auto [pair_id, group_id] = halves(ids, '@');
        const auto [matches, actions] = halves(content, '/');
        pair->id = number(pair_id);
        fill_group(pair->match_group, number(group_id), matches, [](zel_match_t &match, uint16_t value) {
            match.type = ZEL_MATCH_TYPE_ETH_PROTO;
            match.param.eth_proto.type = value;
        });
        fill_group(pair->action_group, number(group_id), actions, [](zel_action_t &action, uint16_t value) {
            action.type = ZEL_ACTION_TYPE_SET_VRF;
            action.param.set_vrf.vrf = value;
        });
        append(result->match_action_pair_group, std::move(pair));
    }
    for (const std::string &part : split(interfaces, ' ')) {
        auto element = make<zel_if_element_t>();
        element->interface = number(part);
        append(result->if_group, std::move(element));
    }
    return result;
}

// Policy 1 with a pair for each random network, port 80 and TCP.  Pair and match have one id, from 0 on.
inline Owned<zel_policy_t> five_tuples(uint16_t num_pairs)
{
    auto one = make<zel_policy_t>();
    one->id = 1;
    std::mt19937 random(4);
    for (uint16_t id = 0; id < num_pairs; ++id) {
        auto pair = make<zel_match_action_pair_t>();
        auto match = make<zel_match_t>();
        pair->id = match->id = id;
        match->type = ZEL_MATCH_TYPE_SERVICE_ELEMENT;
        match->param.service_element = {static_cast<uint32_t>(random()),
                                        0xffffff00,
                                        static_cast<uint32_t>(random()),
                                        0xffff0000,
                                        0,
                                        0,
                                        80,
                                        0xffff,
                                        6};
        append(pair->match_group, std::move(match));
        append(one->match_action_pair_group, std::move(pair));
    }
    return one;
}

inline std::string text_of(const zel_policy_t &policy)
{
    std::string text;
    for (const auto *const pair : members(policy.match_action_pair_group)) {
        std::string matches;
        std::string actions;
        for (const auto *const match : members(pair->match_group))
            matches += fmt::format("{}{}={}", matches.empty() ? "" : ",", match->id, match->param.eth_proto.type);
        for (const auto *const action : members(pair->action_group))
            actions += fmt::format("{}{}={}", actions.empty() ? "" : ",", action->id, action->param.set_vrf.vrf);
        if (pair->match_group.id != pair->action_group.id)
            actions += fmt::format(" in group {}", pair->action_group.id);
        text += fmt::format("{}@{}:{}/{} ", pair->id, pair->match_group.id, matches, actions);
    }
    text += '|';
    for (const auto *const element : members(policy.if_group))
        text += fmt::format("{}{}", text.back() == '|' ? "" : " ", element->interface);
    return text;
}

inline std::string text_of(const Policy &policy) { return text_of(PolicyGraph(policy).policy()); }

// The message that creates a policy.
inline Bytes write_policy(uint32_t app_type, const zel_policy_t &policy)
{
    return zeld::write_policy(app_type, Policy(policy));
}

// The part of a policy that a request kind carries: the first one where there are several.
inline const void *part_of(const zel_policy_t &policy, uint32_t api_type)
{
    const zel_match_action_pair_grp_t &group = policy.match_action_pair_group;
    switch (api_type) {
    case ZEL_API_POLICY_UPDATE:
        return &policy;
    case ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE:
        return &group;
    case ZEL_API_MATCH_ACTION_PAIR_UPDATE:
        return group.pairs[0];
    case ZEL_API_MATCH_GROUP_UPDATE:
        return &group.pairs[0]->match_group;
    case ZEL_API_ACTION_GROUP_UPDATE:
        return &group.pairs[0]->action_group;
    case ZEL_API_MATCH_UPDATE:
        return group.pairs[0]->match_group.matches[0];
    case ZEL_API_ACTION_UPDATE:
        return group.pairs[0]->action_group.actions[0];
    case ZEL_API_INTERFACE_GROUP_UPDATE:
        return &policy.if_group;
    default:
        return nullptr;
    }
}

} // namespace test
