// The check of a graph: each fault of a client is named with its place.
#include "support/recording_platform.hpp"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>

using namespace test;

namespace {

// A policy with two pairs of two matches and an action each; everything has an id of its own.
struct Graph {
    zel_match_t matches[4]{};
    zel_match_t *members[2][2] = {{&matches[0], &matches[1]}, {&matches[2], &matches[3]}};
    zel_action_t actions[2]{};
    zel_action_t *carried[2] = {&actions[0], &actions[1]};
    zel_match_action_pair_t pairs[2]{};
    zel_match_action_pair_t *in_order[2] = {&pairs[0], &pairs[1]};
    zel_policy_t policy{};

    Graph()
    {
        for (uint16_t i = 0; i < 4; ++i) {
            matches[i].id = static_cast<uint16_t>(i + 1);
            matches[i].type = ZEL_MATCH_TYPE_SERVICE_ELEMENT;
            matches[i].param.service_element = {10, 0xff, 0, 0, 80, 0xffff, static_cast<uint16_t>(i), 0xffff, 6};
        }
        for (uint16_t i = 0; i < 2; ++i) {
            actions[i].id = static_cast<uint16_t>(i + 1);
            actions[i].type = ZEL_ACTION_TYPE_REDIRECT;
            actions[i].param.redirect.label_param.label_length = ZEL_LABEL_SIZE;
            pairs[i].match_group = {i, 0, 0, 2, members[i]};
            pairs[i].action_group = {i, 0, 1, &carried[i]};
        }
        policy.match_action_pair_group = {2, in_order};
    }

    std::string check(bool freed = false) const
    {
        const zel_check_options_t options{sizeof options, freed};
        zel_verify_report_t report{};
        report.size = sizeof report;
        if (zel_check_graph(ZEL_MAT_TYPE_POLICY, &policy, &options, &report) == ZEL_VERIFY_OK)
            return {};
        char text[ZEL_VERIFY_TEXT_SIZE];
        zel_verify_report_text(&report, text, sizeof text);
        return text;
    }
};

} // namespace

TEST(Check, EveryFaultHasAPlace)
{
    const struct {
        void (*spoil)(Graph &graph);
        const char *text;
        bool freed = false;
    } cases[] = {
        {[](Graph &) {}, ""},
        {[](Graph &) {}, "", true},
        {[](Graph &g) { g.matches[3].id = 2; },
         "policy / pair 2 / match 2: two different objects have one id: expected 8, found 2 (id 26)"},
        {[](Graph &g) { g.matches[3] = g.matches[0]; }, ""}, // equal: it travels once
        {[](Graph &g) { g.members[1][1] = &g.matches[0]; }, ""},
        {[](Graph &g) { g.members[1][1] = &g.matches[0]; },
         "policy / pair 2 / match 2: two places point to one block of memory: expected 0, found 8 (id 106)", true},
        {[](Graph &g) { g.in_order[1] = g.in_order[0]; },
         "policy / pair 2: two places point to one block of memory: expected 0, found 11 (id 115)", true},
        {[](Graph &g) { g.members[0][1] = nullptr; },
         "policy / pair 1 / match 2: a pointer is null: expected 2, found 2 (id 106)"},
        {[](Graph &g) { g.pairs[1].action_group.actions = nullptr; },
         "policy / pair 2: a pointer is null: expected 1, found 0 (id 64)"},
        {[](Graph &g) { g.matches[2].param.service_element.dport_mask = 0; },
         "policy / pair 2 / match 1: an address or port has a mask of 0: expected 0, found 2 (id 17)"},
        {[](Graph &g) { g.matches[1].type = ZEL_MATCH_TYPE_ACL_IPV6; },
         "policy / pair 1 / match 2: a type does not travel: expected 0, found 2 (id 28)"},
        {[](Graph &g) { g.matches[1].type = ZEL_MATCH_TYPE_NO_PARAM; }, ""},
        {[](Graph &g) { g.actions[1].param.redirect.label_param.label_length = 65; },
         "policy / pair 2 / action 1: a length is beyond its array: expected 64, found 65 (id 58)"},
        {[](Graph &g) { g.actions[1].type = 99; }, ""},
    };
    for (const auto &c : cases) {
        fresh_handle();
        Graph graph;
        c.spoil(graph);
        EXPECT_EQ(graph.check(c.freed), c.text);
        EXPECT_TRUE(heap.live.empty() && platform.reports.empty());
    }
    EXPECT_EQ(zel_check_graph(ZEL_MAT_TYPE_POLICY, nullptr, nullptr, nullptr), ZEL_CHECK_NULL);
    EXPECT_EQ(zel_check_graph(1, nullptr, nullptr, nullptr), ZEL_CHECK_TYPE);
    for (int n = 1; n <= 6; ++n) { // an entry for each match and action
        fresh_handle();
        heap.fail_calloc = n;
        EXPECT_NE(Graph().check().find("out of memory"), std::string::npos) << n;
        EXPECT_TRUE(heap.live.empty());
    }
}

// Every range is covered once, by as few blocks as can be.
TEST(Check, PortRanges)
{
    for (const auto [first, last, fewest] : {std::array<uint32_t, 3>{0, 65535, 1},
                                             {1, 65534, 30},
                                             {1024, 65535, 6},
                                             {80, 90, 3},
                                             {443, 443, 1},
                                             {7, 6, 0},
                                             {65535, 65535, 1},
                                             {0, 65534, 16}}) {
        zel_port_mask_t pairs[ZEL_PORT_RANGE_MAX];
        const uint32_t count = zel_split_port_range(static_cast<uint16_t>(first), static_cast<uint16_t>(last), pairs);
        EXPECT_EQ(count, fewest) << first << " " << last;
        for (uint32_t port = 0; port <= UINT16_MAX; ++port) {
            const auto matched = std::count_if(
                pairs, pairs + count, [&](const zel_port_mask_t &pair) { return (port & pair.mask) == pair.value; });
            ASSERT_EQ(matched, first <= port && port <= last ? 1 : 0) << port;
        }
    }
}
