// Traversal: what is freed and in which order, and what unknown modes and types do.
#include "support/graphs.hpp"
#include "support/recording_platform.hpp"

#include <gtest/gtest.h>

using namespace test;

TEST(Traversal, FreesBottomUpInOrder)
{
    auto handle = fresh_handle();
    // A pair of a service with two elements (type 4), another match, a redirect; an interface.
    Graphs graphs(scripted({1, 2, 2, 1, 1}), scripted({3, 7, 2}));
    auto *policy = graphs.make<zel_policy_t>();
    auto *pair = policy->match_action_pair_group.pairs[0];
    auto **matches = pair->match_group.matches;
    const zel_match_service_t service = matches[0]->param.service;
    ASSERT_EQ(matches[0]->type, static_cast<uint32_t>(ZEL_MATCH_TYPE_SERVICE));
    const std::vector<void *> expected = {
        policy->if_group.if_elements[0],
        policy->if_group.if_elements,
        service.elements[0],
        service.elements[1],
        service.elements,
        matches[0],
        matches[1],
        pair->action_group.actions[0],
        matches,
        pair->action_group.actions,
        pair,
        policy->match_action_pair_group.pairs,
    };
    heap.order = true;
    EXPECT_EQ(free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_POLICY, policy), 0u);
    EXPECT_EQ(heap.freed, expected);
    EXPECT_EQ(policy->match_action_pair_group.pairs, nullptr);
    EXPECT_EQ(policy->if_group.if_elements, nullptr);
    EXPECT_EQ(policy->match_action_pair_group.num_pair, 1);
    // Freed twice is freed once.
    EXPECT_EQ(free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_POLICY, policy), 0u);
    EXPECT_EQ(heap.freed, expected);
    std::free(policy);
    EXPECT_TRUE(heap.live.empty());
}

TEST(Traversal, OnlyAServiceThatIsNoCopyOwnsItsElements)
{
    auto handle = fresh_handle();
    auto *match = Graphs(scripted({3}), scripted({3})).make<zel_match_t>();
    const zel_match_service_t service = match->param.service;
    match->cached = 1;
    free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_MATCH, match);
    match->cached = 0;
    match->type = ZEL_MATCH_TYPE_ACL;
    free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_MATCH, match);
    EXPECT_EQ(match->param.service.elements, service.elements);
    match->type = ZEL_MATCH_TYPE_SERVICE;
    free_graph(ZEL_MAT_TYPE_MATCH, match);
    EXPECT_TRUE(heap.live.empty());
}

TEST(Traversal, CountOfZero)
{
    auto handle = fresh_handle();
    zel_match_action_pair_grp_t group{0, zeroed<zel_match_action_pair_t *>()};
    free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP, &group);
    EXPECT_EQ(group.pairs, nullptr);
    EXPECT_TRUE(heap.live.empty());

    auto **entries = zeroed<zel_stat_request_entry_t *>();
    zel_stat_request_t request{0, entries};
    free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_STAT_REQUEST, &request);
    EXPECT_EQ(request.requests, entries);
    std::free(entries);
}

TEST(Traversal, UnknownTypesAndModes)
{
    auto handle = fresh_handle();
    uint32_t value = 5;
    zel_match_t match{};
    for (const uint32_t type : {0u, 1u, 2u, 4u, 6u, 15u, UINT32_MAX}) {
        zel_store_mat_cache(&handle, 1, 8, 1, &match);
        EXPECT_EQ(traverse_mat_obj(&handle, nullptr, &value, type, &match, 1, MAT_TRAVERSE_FREE), type == 0 ? 0u : 1u);
        EXPECT_EQ(zel_found_mat_cache(&handle, 1, 8, 1), nullptr);
    }
    EXPECT_TRUE(platform.reported("err").empty());

    zel_match_grp_t group{};
    handle.debug = 1;
    EXPECT_EQ(traverse_mat_match_grp_obj(&handle, nullptr, &value, &group, 4, 1), 0u);
    EXPECT_NE(platform.log.back().find("traverse_mat_match_grp_obj("), std::string::npos);
    EXPECT_EQ(traverse_mat_action_redirect_obj(&handle, nullptr, &value, nullptr, 0, 1), 0u);
    EXPECT_EQ(platform.reported("err"), (Strings{"unsurported mode: 4", "unsurported mode: 0"}));
    EXPECT_EQ(traverse_mat_match_obj(&handle, nullptr, &value, &match, 4, 1), 0u);
    EXPECT_EQ(traverse_mat_action_obj(&handle, nullptr, &value, nullptr, 4, 1), 0u);
    EXPECT_EQ(platform.reported("err").size(), 2u);
    EXPECT_EQ(value, 5u);
    // The accumulator is added to, except by a statistics request.
    EXPECT_EQ(traverse_mat_match_grp_obj(&handle, nullptr, &value, &group, MAT_TRAVERSE_SIZE, 1), 0u);
    EXPECT_EQ(value, 5u + 10 + 6 + 8 + 8 + 6);
    zel_stat_request_t request{};
    EXPECT_EQ(traverse_mat_obj(&handle, nullptr, &value, 3, &request, 1, MAT_TRAVERSE_SIZE), 0u);
    EXPECT_EQ(value, 10u + 8);
    for (const uint32_t mode : {MAT_TRAVERSE_SIZE, MAT_TRAVERSE_ENCODE, MAT_TRAVERSE_FREE})
        EXPECT_EQ(traverse_mat_obj(&handle, nullptr, &value, 13, nullptr, 1, mode), 0u);
    EXPECT_EQ(value, 10u + 8);
}
