#include "graphs.hpp"

#include "recording_platform.hpp"

#include <algorithm>
#include <cstring>

namespace test {
namespace {

// Values that grow from field to field, so that a swapped pair shows.
class Values {
public:
    explicit Values(uint32_t first) : next_(first) {}
    operator uint32_t() { return 0xa1000000u + next_++; }
    operator uint16_t() { return static_cast<uint16_t>(0xb100u + next_++); }
    operator uint8_t() { return static_cast<uint8_t>(0xc0u + next_++); }
    template <size_t N> void fill(uint8_t (&bytes)[N])
    {
        for (auto &byte : bytes)
            byte = *this;
    }

private:
    uint32_t next_;
};

zel_match_service_element_t service_element(uint16_t id, uint32_t index)
{
    Values v(id + 16 * index);
    return {v, v, v, v, v, v, v, v, v};
}

zel_if_element_t *make_if_element(uint32_t index)
{
    Values v(16 * index);
    return make(zel_if_element_t{v, v, v, v, v});
}

zel_if_group_t make_if_group(uint32_t count)
{
    std::vector<zel_if_element_t *> elements;
    for (uint32_t i = 0; i < count; ++i)
        elements.push_back(make_if_element(i));
    return {count_of(elements), array_of(elements)};
}

zel_match_action_pair_t *make_pair(uint16_t id, const zel_match_grp_t &matches, const zel_action_grp_t &actions)
{
    Values v(id);
    return make(zel_match_action_pair_t{id, v, v, matches, actions});
}

zel_policy_t *make_policy(uint16_t id, const std::vector<zel_match_action_pair_t *> &pairs, uint32_t interfaces)
{
    Values v(id);
    return make(zel_policy_t{v, id, v, v, {count_of(pairs), array_of(pairs)}, make_if_group(interfaces)});
}

} // namespace

zel_match_t *make_match(uint32_t type, uint16_t id)
{
    Values v(id);
    zel_match_t match{v, id, v, type, {}, 0};
    zel_match_param_t &param = match.param;
    switch (type) {
    case ZEL_MATCH_TYPE_ACL:
        v.fill(param.acl.acl);
        param.acl.acl[ZEL_ACL_SIZE - 1] = 0;
        break;
    case ZEL_MATCH_TYPE_LABEL:
        param.label = {v, v, v, v, v, {}};
        v.fill(param.label.label);
        break;
    case ZEL_MATCH_TYPE_SERVICE: {
        std::vector<zel_match_service_element_t *> elements;
        for (uint32_t i = 0; i < id % 4u; ++i)
            elements.push_back(make(service_element(id, i)));
        param.service = {count_of(elements), array_of(elements)};
        break;
    }
    case ZEL_MATCH_TYPE_SERVICE_ELEMENT:
        param.service_element = service_element(id, 0);
        break;
    case ZEL_MATCH_TYPE_ETH_PROTO:
        param.eth_proto = {v};
        break;
    case ZEL_MATCH_TYPE_ARP_OPCODE:
        param.arp_opcode = {v};
        break;
    case ZEL_MATCH_TYPE_EXP:
        param.exp = {v};
        break;
    case ZEL_MATCH_TYPE_LISP_PROTO:
        param.lisp_proto = {v, v};
        break;
    case ZEL_MATCH_TYPE_LISP_INST:
        param.lisp_inst = {v};
        break;
    default:
        break;
    }
    return make(match);
}

zel_action_t *make_action(uint32_t type, uint16_t id, uint32_t redirect_type)
{
    Values v(id);
    zel_action_t action{v, id, type, {}, 0};
    zel_action_param_t &param = action.param;
    switch (type) {
    case ZEL_ACTION_TYPE_REDIRECT:
        param.redirect = {redirect_type, v, v, {v, {}}, v, {}};
        v.fill(param.redirect.label_param.label);
        if (redirect_type == ZEL_REDIRECT_TYPE_L2_IPV4) {
            param.redirect.l2_ipv4 = {v, v, v, {}, {}, v};
            v.fill(param.redirect.l2_ipv4.smac);
            v.fill(param.redirect.l2_ipv4.dmac);
        } else if (redirect_type == ZEL_REDIRECT_TYPE_L3_IPV4) {
            param.redirect.l3_ipv4 = {v, v, v, v};
        }
        break;
    case ZEL_ACTION_TYPE_NAT_REWRITE:
        param.nat_rewrite = {v, v, v, v};
        break;
    case ZEL_ACTION_TYPE_SET_VRF:
        param.set_vrf = {v};
        break;
    case ZEL_ACTION_TYPE_LISP_DECAPSULATION:
        param.lisp_decapsulation = {v};
        break;
    default:
        break;
    }
    return make(action);
}

zel_match_grp_t make_match_group(const std::vector<zel_match_t *> &matches)
{
    Values v(3);
    return {v, v, v, count_of(matches), array_of(matches)};
}

zel_action_grp_t make_action_group(const std::vector<zel_action_t *> &actions)
{
    Values v(5);
    return {v, v, count_of(actions), array_of(actions)};
}

zel_policy_list_t *full_policy_list()
{
    std::vector<zel_match_t *> matches;
    for (uint32_t type = 1; type <= 12; ++type)
        matches.push_back(make_match(type, static_cast<uint16_t>(type + 10)));
    matches[3]->param.service.elements[0]->protocol = 6;
    const std::vector<zel_action_t *> actions = {
        make_action(ZEL_ACTION_TYPE_REDIRECT, 20, 0),
        make_action(ZEL_ACTION_TYPE_REDIRECT, 21, ZEL_REDIRECT_TYPE_L2_IPV4),
        make_action(ZEL_ACTION_TYPE_REDIRECT, 22, ZEL_REDIRECT_TYPE_L3_IPV4),
        make_action(ZEL_ACTION_TYPE_NAT_REWRITE, 23),
        make_action(ZEL_ACTION_TYPE_SET_VRF, 24),
        make_action(ZEL_ACTION_TYPE_LISP_DECAPSULATION, 25),
        make_action(5, 26),
    };
    auto *first = make_pair(1, make_match_group(matches), make_action_group(actions));
    auto *second = make_pair(2, make_match_group({make_match(ZEL_MATCH_TYPE_ACL, 11)}),
                             make_action_group({make_action(ZEL_ACTION_TYPE_SET_VRF, 24)}));
    const std::vector<zel_policy_t *> policies = {make_policy(7, {first, second}, 2), make_policy(8, {}, 0)};
    return make(zel_policy_list_t{count_of(policies), array_of(policies)});
}

zel_stat_request_t *full_stat_request()
{
    Values v(1);
    const std::vector<zel_stat_request_entry_t *> entries = {make(zel_stat_request_entry_t{v, v, v, v, v, v}),
                                                             make(zel_stat_request_entry_t{v, v, v, v, v, v})};
    return make(zel_stat_request_t{2, array_of(entries)});
}

namespace {

uint32_t below(std::mt19937 &random, uint32_t n)
{
    return static_cast<uint32_t>(random() % n);
}

// Few ids, so that they repeat; the type follows from the id, as for a real object.
zel_match_t *random_match(std::mt19937 &random)
{
    const auto id = static_cast<uint16_t>(below(random, 40));
    return make_match(1 + id % 12u, id);
}

zel_action_t *random_action(std::mt19937 &random)
{
    const auto id = static_cast<uint16_t>(below(random, 20));
    return make_action(3 + id % 6u, id, id % 4u);
}

template <class Make> auto several(std::mt19937 &random, uint32_t most, Make make_one)
{
    std::vector<decltype(make_one(random))> members;
    for (uint32_t n = below(random, most + 1); n > 0; --n)
        members.push_back(make_one(random));
    return members;
}

zel_match_action_pair_t *random_pair(std::mt19937 &random)
{
    const auto matches = several(random, 6, random_match);
    return make_pair(static_cast<uint16_t>(random()), make_match_group(matches),
                     make_action_group(several(random, 4, random_action)));
}

zel_policy_t *random_policy(std::mt19937 &random)
{
    return make_policy(static_cast<uint16_t>(random()), several(random, 5, random_pair), below(random, 4));
}

} // namespace

void *random_graph(uint32_t mat_type, std::mt19937 &random)
{
    switch (mat_type) {
    case ZEL_MAT_TYPE_STAT_REQUEST:
        return full_stat_request();
    case ZEL_MAT_TYPE_IF_GROUP:
        return make(make_if_group(below(random, 5)));
    case ZEL_MAT_TYPE_ACTION:
        return random_action(random);
    case ZEL_MAT_TYPE_MATCH:
        return random_match(random);
    case ZEL_MAT_TYPE_ACTION_GROUP:
        return make(make_action_group(several(random, 8, random_action)));
    case ZEL_MAT_TYPE_MATCH_GROUP:
        return make(make_match_group(several(random, 8, random_match)));
    case ZEL_MAT_TYPE_MATCH_ACTION_PAIR:
        return random_pair(random);
    case ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP: {
        const auto pairs = several(random, 6, random_pair);
        return make(zel_match_action_pair_grp_t{count_of(pairs), array_of(pairs)});
    }
    case ZEL_MAT_TYPE_POLICY:
        return random_policy(random);
    default: {
        const auto policies = several(random, 3, random_policy);
        return make(zel_policy_list_t{count_of(policies), array_of(policies)});
    }
    }
}

void free_graph(uint32_t mat_type, void *root)
{
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, 0, 0, nullptr, nullptr, nullptr);
    free_contained_mat_obj_mem(&handle, 0, mat_type, root);
    std::free(root);
}

} // namespace test
