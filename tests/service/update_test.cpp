// What each kind of update changes in the policies.
#include "policy_notation.hpp"
#include "tools/zeld/policies.hpp"

#include <ctime>

using namespace test;

namespace {

constexpr uint32_t set = service::op_code_set;
constexpr uint32_t remove_named = service::op_code_remove;
constexpr Policies::Limits limits{1 << 20, 1 << 20};

// Applies a request as the parser would give it. The caller keeps the object.
std::string apply(Policies &policies, uint32_t kind, uint32_t op_code, uint16_t policy_id, const void *object)
{
    Request request{{kind, 1, policy_id, op_code},
                    AnyGraph(const_cast<void *>(object), FreeAnyGraph{ZEL_MAT_TYPE_NONE})};
    std::string result;
    try {
        result = policies.apply(request);
    } catch (const Refusal &refusal) {
        result = fmt::format("!{} {}", static_cast<uint32_t>(refusal.error()), refusal.what());
    }
    (void)request.object.release();
    return result;
}

std::string apply_list(Policies &policies, uint32_t op_code, const std::vector<Owned<zel_policy_t>> &list)
{
    std::vector<zel_policy_t *> pointers;
    for (const auto &one : list)
        pointers.push_back(one.get());
    const zel_policy_list_t record{static_cast<uint16_t>(pointers.size()), pointers.data()};
    return apply(policies, ZEL_API_POLICY_LIST_UPDATE, op_code, 0, &record);
}

std::string shown(const Policies &policies)
{
    std::string text;
    for (const auto &[key, policy] : policies.all())
        text += fmt::format("{}/{}: {}; ", key.app_type, key.id, text_of(policy->graph()));
    return text;
}

template <class... P> std::vector<Owned<zel_policy_t>> list_of(P... policies)
{
    std::vector<Owned<zel_policy_t>> list;
    (list.push_back(std::move(policies)), ...);
    return list;
}

} // namespace

TEST(Update, PartsOfAPolicy)
{
    const std::string before = "1@3:5=80,6=443/7=100 2@4:5=80/7=100 4@3:8=22/9=1 |1 2";
    const struct {
        uint32_t kind;
        uint32_t op_code;
        const char *given;
        const char *after; // with "!": the refusal, and nothing has changed
    } cases[] = {
        {2, set, "6@6:/ |", "6@6:/ |"},
        {2, set, "1@1:5=1/ 1@2:/ |", "!4 policy 7 would have more than one pair 1"},
        {2, set, "1@1:5=1,5=2/ |", "!4 match 5 of pair 1 would differ from match 5 of pair 1"},
        {2, set, "1@1:/5=1 2@1:/5=2 |", "!4 action 5 of pair 2 would differ from action 5 of pair 1"},
        {2, 3, "6@6:/ |", "!2 op_code 3 is not known for request kind 2"},
        {3, set, "9@9:1=1/2=2 1@1:/ |", "9@9:1=1/2=2 1@1:/ |1 2"},
        {3, set, "", "|1 2"},
        {3, remove_named, "4@0:/ 1@0:/ |", "2@4:5=80/7=100 |1 2"},
        {3, remove_named, "4@0:/ 3@0:/ |", "!3 policy 7 has no pair 3"},
        {3, remove_named, "", "1@3:5=80,6=443/7=100 2@4:5=80/7=100 4@3:8=22/9=1 |1 2"},
        {4, set, "2@5:6=443/ |", "1@3:5=80,6=443/7=100 2@5:6=443/ 4@3:8=22/9=1 |1 2"},
        {4, set, "3@5:6=443/ |", "1@3:5=80,6=443/7=100 2@4:5=80/7=100 4@3:8=22/9=1 3@5:6=443/ |1 2"},
        {4, set, "3@5:6=444/ |", "!4 match 6 of pair 3 would differ from match 6 of pair 1"},
        {4, set, "4@3:8=23/9=2 |", "1@3:5=80,6=443/7=100 2@4:5=80/7=100 4@3:8=23/9=2 |1 2"},
        {4, remove_named, "2@0:/ |", "1@3:5=80,6=443/7=100 4@3:8=22/9=1 |1 2"},
        {4, remove_named, "3@0:/ |", "!3 policy 7 has no pair 3"},
        {5, set, "0@3:1=1/ |", "1@3:1=1/7=100 2@4:5=80/7=100 4@3:1=1/9=1 |1 2"},
        {5, set, "0@5:1=1/ |", "!3 policy 7 has no pair with match group 5"},
        {5, set, "0@4:8=1/ |", "!4 match 8 of pair 4 would differ from match 8 of pair 2"},
        {5, remove_named, "0@3:6=0,8=0/ |", "1@3:5=80/7=100 2@4:5=80/7=100 4@3:/9=1 |1 2"},
        {5, remove_named, "0@4:5=0,6=0/ |", "!3 match group 4 of policy 7 has no match 6"},
        {5, remove_named, "0@5:/ |", "!3 policy 7 has no pair with match group 5"},
        {6, set, "0@4:/1=1 |", "1@3:5=80,6=443/7=100 2@4:5=80/1=1 4@3:8=22/9=1 |1 2"},
        {6, set, "0@5:/1=1 |", "!3 policy 7 has no pair with action group 5"},
        {6, remove_named, "0@3:/9=0 |", "1@3:5=80,6=443/7=100 2@4:5=80/7=100 4@3:8=22/ |1 2"},
        {6, remove_named, "0@4:/9=0 |", "!3 action group 4 of policy 7 has no action 9"},
        {7, set, "0@0:5=81/ |", "1@3:5=81,6=443/7=100 2@4:5=81/7=100 4@3:8=22/9=1 |1 2"},
        {7, set, "0@0:7=81/ |", "!3 policy 7 has no match 7"},
        {7, remove_named, "0@0:5=0/ |", "1@3:6=443/7=100 2@4:/7=100 4@3:8=22/9=1 |1 2"},
        {7, remove_named, "0@0:7=0/ |", "!3 policy 7 has no match 7"},
        {8, set, "0@0:/7=101 |", "1@3:5=80,6=443/7=101 2@4:5=80/7=101 4@3:8=22/9=1 |1 2"},
        {8, set, "0@0:/8=101 |", "!3 policy 7 has no action 8"},
        {8, remove_named, "0@0:/7=0 |", "1@3:5=80,6=443/ 2@4:5=80/ 4@3:8=22/9=1 |1 2"},
        {9, set, "|3", "1@3:5=80,6=443/7=100 2@4:5=80/7=100 4@3:8=22/9=1 |3"},
        {9, set, "", "1@3:5=80,6=443/7=100 2@4:5=80/7=100 4@3:8=22/9=1 |"},
        {9, remove_named, "|1", "1@3:5=80,6=443/7=100 2@4:5=80/7=100 4@3:8=22/9=1 |2"},
        {9, remove_named, "|2 3", "!3 policy 7 is not bound to interface 3, VLAN 0, VRF 0, direction 0"},
    };
    for (const auto &c : cases) {
        Policies policies(nullptr, limits);
        ASSERT_EQ(apply(policies, 2, set, 7, policy(7, before).get()), "policy 7 has 3 pairs");
        const auto given = policy(7, c.given);
        const std::string answer = apply(policies, c.kind, c.op_code, 7, part_of(*given, c.kind));
        const std::string context = fmt::format("kind {} op {} {}", c.kind, c.op_code, c.given);
        EXPECT_EQ(answer[0] == '!' ? answer : text_of(policies.get({1, 7}).graph()), c.after) << context;
        EXPECT_EQ(text_of(policies.get({1, 7}).graph()), c.after[0] == '!' ? before : c.after) << context;
        // A part of a policy that does not exist.
        if (c.kind != 2) {
            EXPECT_EQ(apply(policies, c.kind, c.op_code, 8, part_of(*given, c.kind)),
                      "!3 application 1 has no policy 8");
        }
    }
}

TEST(Update, WholePolicies)
{
    Policies policies(nullptr, limits);
    EXPECT_EQ(apply_list(policies, set, list_of(policy(1, "1@1:/"), policy(2, "2@2:1=1/"))), "2 policies changed");
    const std::string before = shown(policies);
    EXPECT_EQ(before, "1/1: 1@1:/ |; 1/2: 2@2:1=1/ |; ");
    EXPECT_EQ(apply_list(policies, set, list_of(policy(3, ""), policy(3, ""))),
              "!4 the list has more than one policy 3");
    EXPECT_EQ(apply_list(policies, set, list_of(policy(3, ""), policy(2, "1@1:/ 1@1:/"))),
              "!4 policy 2 would have more than one pair 1");
    EXPECT_EQ(apply_list(policies, remove_named, list_of(policy(1, ""), policy(3, ""))),
              "!3 application 1 has no policy 3");
    EXPECT_EQ(apply(policies, 2, set, 2, policy(1, "").get()),
              "!1 the header names policy 2 and the message carries policy 1");
    EXPECT_EQ(apply(policies, 10, 99, 3, nullptr), "!3 application 1 has no policy 3");
    EXPECT_EQ(shown(policies), before);
    EXPECT_EQ(apply(policies, 10, 99, 1, nullptr), "policy 1 removed");
    EXPECT_EQ(apply(policies, 2, remove_named, 2, policy(2, "").get()), "policy 2 removed");
    EXPECT_EQ(shown(policies), "");
}

TEST(Update, Limits)
{
    std::string large;
    for (int i = 0; i < 40; ++i)
        large += fmt::format("{}@1:{}=1/ ", i, i);
    Policies few(nullptr, {1 << 20, 50000});
    ASSERT_EQ(apply(few, 2, set, 1, policy(1, large).get()), "policy 1 has 40 pairs");
    ASSERT_GT(few.get({1, 1}).size(), 15000 + few.get({1, 1}).message().size());
    EXPECT_EQ(apply(few, 2, set, 2, policy(2, large).get()), "policy 2 has 40 pairs");
    EXPECT_EQ(apply(few, 2, set, 3, policy(3, large).get()).substr(0, 30), "!6 all policies together would");
    EXPECT_EQ(apply(few, 2, set, 1, policy(1, large).get()), "policy 1 has 40 pairs");
    EXPECT_EQ(few.all().size(), 2u);
}

// A large object in many places: a small message would take much memory.
TEST(Update, RequestsThatMultiply)
{
    std::string many;
    for (int i = 0; i < 10000; ++i)
        many += fmt::format("{}@1:5=1/ ", i);
    Policies policies(nullptr, {16 << 20, 64 << 20});
    ASSERT_EQ(apply(policies, 2, set, 1, policy(1, many).get()), "policy 1 has 10000 pairs");
    Owned<zel_match_t> large(allocate<zel_match_t>());
    large->id = 5;
    large->type = ZEL_MATCH_TYPE_SERVICE;
    for (int i = 0; i < 1000; ++i)
        append(large->param.service, Owned<zel_match_service_element_t>(allocate<zel_match_service_element_t>(1)));
    EXPECT_EQ(apply(policies, 7, set, 1, large.get()), "!6 the request would take more than 67108864 bytes of memory");
    EXPECT_EQ(policies.get({1, 1}).graph().match_action_pair_group.num_pair, 10000u);
}

// A request may name 65,535 members. Their removal has to take far less than quadratic time.
TEST(Update, RemovesManyMembersQuickly)
{
    constexpr uint16_t num_matches = 60000;
    zel_match_grp_t group{};
    std::vector<zel_match_t> matches(num_matches);
    std::vector<zel_match_t *> pointers;
    for (zel_match_t &match : matches) {
        match.id = static_cast<uint16_t>(pointers.size());
        match.type = ZEL_MATCH_TYPE_NO_PARAM;
        pointers.push_back(&match);
    }
    group.num_match = num_matches;
    group.matches = pointers.data();
    Policies policies(nullptr, {64 << 20, 256 << 20});
    ASSERT_EQ(apply(policies, 2, set, 1, policy(1, "1@0:/").get()), "policy 1 has 1 pairs");
    ASSERT_EQ(apply(policies, 5, set, 1, &group), "policy 1 has 1 pairs");
    group.num_match = num_matches - 1;
    const std::clock_t start = std::clock();
    ASSERT_EQ(apply(policies, 5, remove_named, 1, &group), "policy 1 has 1 pairs");
    EXPECT_LT((std::clock() - start) / CLOCKS_PER_SEC, 10);
    EXPECT_EQ(policies.get({1, 1}).graph().match_action_pair_group.pairs[0]->match_group.num_match, 1u);
}

TEST(Update, CountersStayWithPairs)
{
    Policies policies(nullptr, limits);
    apply(policies, 2, set, 1, policy(1, "1@1:1=1/ 2@2:2=2/").get());
    service::PacketHeader packet{};
    packet.bytes = 10;
    std::vector<service::PacketHeader> packets(5, packet);
    packets[0].ether_type = 1;
    packets[1].ether_type = packets[2].ether_type = 2;
    EXPECT_EQ(policies.count(packets), 3u);
    const auto other = policy(1, "3@1:3=3/ 2@2:4=4/");
    apply(policies, 3, set, 1, &other->match_action_pair_group);
    const Policy &now = policies.get({1, 1});
    EXPECT_EQ(now.counters(0).packets, 0u);
    EXPECT_EQ(now.counters(1).packets, 2u);
    EXPECT_EQ(now.counters(1).bytes, 20u);
    EXPECT_EQ(now.position_of(1), std::nullopt);
    // A policy that is set as a whole starts at zero.
    apply(policies, 2, set, 1, other.get());
    EXPECT_EQ(policies.get({1, 1}).counters(1).packets, 0u);
}
