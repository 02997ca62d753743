// The classifier against a simple one.
#include "random_policies.hpp"

#include <gtest/gtest.h>

using namespace test;
using service::PacketHeader;

namespace {

// The pair that a packet belongs to in each policy, or nothing.
std::optional<uint16_t> classified(const Policy &policy, const PacketHeader &packet)
{
    const Pair *const pair = policy.classify(packet, classify::pack(packet));
    return pair != nullptr ? std::optional(pair->record.id) : std::nullopt;
}

} // namespace

TEST(Classifier, AgreesWithASimpleOne)
{
    Dice dice(20261121);
    size_t num_matched = 0;
    for (int round = 0; round < 2000; ++round) {
        const auto graph = random_policy(dice, round % 100 == 0 ? 500 : 12);
        const Policy policy(*graph);
        for (int i = 0; i < 50; ++i) {
            const PacketHeader packet = random_packet(dice);
            const auto expected = naive(*graph, packet);
            ASSERT_EQ(classified(policy, packet), expected) << round;
            num_matched += expected ? 1 : 0;
        }
    }
    EXPECT_GT(num_matched, 10000u); // enough packets matched at all
}

// Five-tuples under few masks: a packet is compared with few rules, however many there are.
TEST(Classifier, CostsLittleForManyRules)
{
    std::size_t costs[2];
    for (const uint32_t num_pairs : {800u, 8000u}) {
        auto graph = make<zel_policy_t>();
        Dice dice(3);
        for (uint32_t id = 0; id < num_pairs; ++id) {
            auto match = make<zel_match_t>();
            match->type = ZEL_MATCH_TYPE_SERVICE_ELEMENT;
            match->id = static_cast<uint16_t>(id);
            zel_match_service_element_t &element = match->param.service_element;
            element = {id * 2654435761u,
                       0xffffff00u << dice.below(2),
                       id * 40503u,
                       0xffff0000u << dice.below(2),
                       0,
                       0,
                       80,
                       0xffff,
                       6};
            auto pair = make<zel_match_action_pair_t>();
            pair->id = static_cast<uint16_t>(id);
            append(pair->match_group, std::move(match));
            append(graph->match_action_pair_group, std::move(pair));
        }
        costs[num_pairs == 800 ? 0 : 1] = Policy(*graph).classifier().cost();
    }
    EXPECT_LT(costs[1], 100u);
    EXPECT_LT(costs[1], 2 * costs[0]);
}

TEST(Classifier, CopiesAreWholeAndEqual)
{
    Dice dice(7);
    for (int round = 0; round < 200; ++round) {
        const auto policy = random_policy(dice, 12);
        const auto copy = clone(*policy);
        EXPECT_TRUE(equal(*policy, *copy));
        copy->version = static_cast<uint16_t>(policy->version + 1);
        EXPECT_FALSE(equal(*policy, *copy));
    }
}
