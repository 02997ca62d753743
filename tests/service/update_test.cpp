// What each kind of update changes in the policies.
#include "model.hpp"
#include "random_requests.hpp"
#include "tools/zeld/statistics.hpp"
#include "tools/zeld/traffic.hpp"
#include "tools/zeld/update.hpp"
#include "zeld_process.hpp"

#include <malloc.h>
#include <random>

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
        text += fmt::format("{}/{}: {}; ", key.app_type, key.id, text_of(*policy));
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
        EXPECT_EQ(answer[0] == '!' ? answer : text_of(*policies.get({1, 7})), c.after) << context;
        EXPECT_EQ(text_of(*policies.get({1, 7})), c.after[0] == '!' ? before : c.after) << context;
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

TEST(Update, IdsThatStandForAll)
{
    Policies policies(nullptr, limits);
    EXPECT_EQ(apply(policies, 2, set, 0xffff, policy(0xffff, "").get()), "!1 policy id 65535 stands for all policies");
    EXPECT_EQ(apply(policies, 2, set, 1, policy(1, "65535@1:/").get()), "!1 pair id 65535 stands for all pairs");
    EXPECT_EQ(apply(policies, 2, set, 1, policy(1, "65534@1:/").get()), "policy 1 has 1 pairs");
}

// The service and the model agree after every request: on refusals, on what the policies
// are, on the bytes that show them and on how many these are. The state file agrees with
// both, whenever it is read.
TEST(Update, AgreesWithTheModel)
{
    const TestFolder folder;
    const auto open = [&] {
        auto policies = std::make_unique<Policies>(std::make_unique<Store>(folder.path + "/state"), limits);
        policies->load([] { return true; }, false);
        return policies;
    };
    Model model;
    std::unique_ptr<Policies> policies = open();
    RandomRequests requests(
        [random = std::mt19937(8)](uint32_t n) mutable { return static_cast<uint32_t>(random() % n); });
    size_t num_done = 0;
    for (int round = 0; round < 6000; ++round) {
        const Bytes message = requests.message();
        const Request request = read_request(message.data());
        std::optional<Error> error;
        try {
            policies->apply(request);
        } catch (const Refusal &refusal) {
            error = refusal.error();
        }
        ASSERT_EQ(error, model.apply(request.header, request.object.get())) << round;
        num_done += error ? 0 : 1;
        if (requests.below(4) == 0)
            policies->commit();
        if (requests.below(100) == 0) {
            policies->commit();
            policies.reset();
            policies = open();
        }
        ASSERT_EQ(policies->all().size(), model.policies.size()) << round;
        for (const auto &[key, policy] : policies->all()) {
            const zel_policy_t &expected = *model.policies.at(key);
            ASSERT_EQ(text_of(*policy), text_of(expected)) << round;
            const Bytes bytes = message_of({ZEL_API_POLICY_UPDATE, key.app_type, key.id, set}, &expected);
            ASSERT_EQ(write_policy(key.app_type, *policy), bytes) << round;
            ASSERT_TRUE(policy->message == nullptr || *policy->message == bytes) << round;
        }
    }
    EXPECT_GT(num_done, 1500u);
}

// Each application of the same change costs the same steps, however large the policy is.
TEST(Update, CostsInProportionToTheChange)
{
    uint64_t steps[2];
    for (const int num_pairs : {100, 10000}) {
        std::string pairs;
        for (int id = 0; id < num_pairs; ++id)
            pairs += fmt::format("{}@{}:{}={}/{}=1 ", id, id, id, id, id);
        Policy version(*policy(1, pairs));
        const auto part = policy(1, "50@50:50=51/50=2");
        const Budget budget(SIZE_MAX);
        const auto before = mallinfo2().uordblks;
        const Policy changed = [&] {
            Policy copy(version);
            for (const uint32_t kind : {ZEL_API_MATCH_ACTION_PAIR_UPDATE, ZEL_API_MATCH_UPDATE, ZEL_API_ACTION_UPDATE})
                update_policy(copy, kind, set, part_of(*part, kind));
            return copy;
        }();
        steps[num_pairs == 100 ? 0 : 1] = budget.steps();
        if (!keeps_freed_memory) {
            EXPECT_LT(mallinfo2().uordblks - before, 64000u);
        }
    }
    EXPECT_EQ(steps[0], steps[1]);
    EXPECT_LT(steps[0], 50u);
}

// So many records, and the pointers to them that a group has.
template <class R> struct Many {
    explicit Many(uint16_t count, uint16_t R::*id) : records(count)
    {
        for (R &record : records) {
            record.*id = static_cast<uint16_t>(100 + pointers.size());
            pointers.push_back(&record);
        }
    }
    std::vector<R> records;
    std::vector<R *> pointers{};
};

// The steps of a removal that names all members of a group.
uint64_t steps_of_removal(uint32_t kind, const void *object)
{
    Policy version(*policy(1, "1@1:/ 2@1:/ 3@1:/"));
    const Budget budget(SIZE_MAX);
    update_policy(version, kind, set, object);
    const uint64_t before = budget.steps();
    update_policy(version, kind, remove_named, object);
    return budget.steps() - before;
}

// Such a removal takes steps in proportion to the policy, and one that would take very many
// is refused.
TEST(Update, RemovalsAreLinear)
{
    uint64_t steps[2][4];
    for (const std::size_t is_large : {0u, 1u}) {
        const auto count = static_cast<uint16_t>(is_large != 0 ? 30000 : 3000);
        Many<zel_match_t> matches(count, &zel_match_t::id);
        for (zel_match_t &match : matches.records)
            match.type = ZEL_MATCH_TYPE_NO_PARAM;
        Many<zel_action_t> actions(count, &zel_action_t::id);
        for (zel_action_t &action : actions.records)
            action.type = ZEL_ACTION_TYPE_SET_VRF;
        Many<zel_match_action_pair_t> pairs(count, &zel_match_action_pair_t::id);
        Many<zel_if_element_t> elements(count, &zel_if_element_t::vlan);
        zel_match_grp_t match_group{};
        match_group.id = 1;
        match_group.num_match = count;
        match_group.matches = matches.pointers.data();
        zel_action_grp_t action_group{};
        action_group.id = 1;
        action_group.num_action = count;
        action_group.actions = actions.pointers.data();
        const zel_match_action_pair_grp_t pair_group{count, pairs.pointers.data()};
        const zel_if_group_t if_group{count, elements.pointers.data()};
        steps[is_large][0] = steps_of_removal(ZEL_API_MATCH_GROUP_UPDATE, &match_group);
        steps[is_large][1] = steps_of_removal(ZEL_API_ACTION_GROUP_UPDATE, &action_group);
        steps[is_large][2] = steps_of_removal(ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE, &pair_group);
        steps[is_large][3] = steps_of_removal(ZEL_API_INTERFACE_GROUP_UPDATE, &if_group);
    }
    for (int kind = 0; kind < 4; ++kind) {
        EXPECT_GT(steps[0][kind], 0u);
        EXPECT_LT(steps[1][kind], 11 * steps[0][kind]) << kind;
    }

    std::string pairs;
    for (int id = 0; id < 60000; ++id)
        pairs += fmt::format("{}@1:/ ", id);
    Policies policies(nullptr, {64 << 20, 1 << 30});
    apply(policies, 2, set, 1, policy(1, pairs).get());
    std::string many = "1@1:";
    for (int id = 0; id < 200; ++id)
        many += fmt::format("{}=1,", id);
    const auto large = policy(1, many + "/");
    EXPECT_EQ(apply(policies, 5, set, 1, part_of(*large, 5)), "!6 the request would take more than 8388608 steps");
}

// What is counted is what is held, whatever the policies are.
TEST(Update, MemoryIsCounted)
{
    if (keeps_freed_memory)
        GTEST_SKIP() << "the sanitizer has a heap of its own";
    std::string pairs;
    std::string interfaces = "|";
    for (int id = 0; id < 3000; ++id) {
        pairs += fmt::format("{}@{}:{}={},{}=1/{}=1 ", id, id, id, id, 50000, id);
        interfaces += "1 ";
    }
    const std::pair<const char *, std::string> shapes[] = {
        {"empty", ""}, {"one pair", "1@1:1=1/1=1"}, {"pairs", pairs}, {"interfaces", interfaces}};
    const Classifier scratch(*policy(1, "1@1:1=1/1=1")); // which all compilations share, is not a policy's
    for (const auto &[name, text] : shapes) {
        const auto graph = policy(1, text);
        const int num_policies = text.size() < 100 ? 2000 : 3;
        const auto before = mallinfo2().uordblks;
        Policies policies(nullptr, {1 << 24, 1 << 30});
        for (int id = 0; id < num_policies; ++id) {
            graph->id = static_cast<uint16_t>(id);
            const Bytes message = message_of({ZEL_API_POLICY_UPDATE, 1, graph->id, set}, graph.get());
            ASSERT_NO_THROW(policies.apply(read_request(message.data())));
            policies.commit();
            (void)policies.all().rbegin()->second->classifier();
        }
        const double held = static_cast<double>(mallinfo2().uordblks - before);
        EXPECT_LT(held, 1.05 * static_cast<double>(policies.held())) << name;
        EXPECT_GT(held, 0.3 * static_cast<double>(policies.held())) << name;
    }
}

TEST(Update, Limits)
{
    std::string large;
    for (int i = 0; i < 40; ++i)
        large += fmt::format("{}@1:{}=1/ ", i, i);
    Policies few(nullptr, {1 << 20, 80000});
    ASSERT_EQ(apply(few, 2, set, 1, policy(1, large).get()), "policy 1 has 40 pairs");
    ASSERT_GT(few.held(), 20000u);
    EXPECT_EQ(apply(few, 2, set, 2, policy(2, large).get()), "policy 2 has 40 pairs");
    EXPECT_EQ(apply(few, 2, set, 3, policy(3, large).get()).substr(0, 30), "!6 all policies together would");
    EXPECT_EQ(apply(few, 2, set, 1, policy(1, large).get()), "policy 1 has 40 pairs");
    EXPECT_EQ(few.all().size(), 2u);
}

// A group with much in it that stands in many pairs: a small message would take much memory.
TEST(Update, RequestsThatMultiply)
{
    std::string many;
    for (int i = 0; i < 10000; ++i)
        many += fmt::format("{}@1:5=1/ ", i);
    Policies policies(nullptr, {16 << 20, 8 << 20});
    ASSERT_EQ(apply(policies, 2, set, 1, policy(1, many).get()), "policy 1 has 10000 pairs");
    std::string group = "1@1:";
    for (int i = 0; i < 500; ++i)
        group += "5=1,";
    const auto large = policy(1, group + "/");
    EXPECT_EQ(apply(policies, 5, set, 1, part_of(*large, 5)),
              "!6 the request would take more than 8388608 bytes of memory: raise --max-state");
    EXPECT_EQ(policies.get({1, 1})->num_pairs(), 10000u);
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
    const Bytes array = array_of(service::element_packet, packets);
    Traffic traffic(policies, array.data());
    while (traffic.state() != Job::State::done)
        traffic.run(Slice());
    EXPECT_EQ(traffic.answer().header.retval, 3);
    const auto other = policy(1, "3@1:3=3/ 2@2:4=4/");
    apply(policies, 3, set, 1, &other->match_action_pair_group);
    const auto now = policies.get({1, 1});
    EXPECT_EQ(now->pair(3)->counters->packets, 0u);
    EXPECT_EQ(now->pair(2)->counters->packets, 2u);
    EXPECT_EQ(now->pair(2)->counters->bytes, 20u);
    EXPECT_EQ(now->pair(1), nullptr);
    // A policy that is set as a whole starts at zero.
    apply(policies, 2, set, 1, other.get());
    EXPECT_EQ(policies.get({1, 1})->pair(2)->counters->packets, 0u);
}

// The client may go, or memory may end, between the clearing and the answer.
TEST(Update, CountersAreClearedOnlyWithAnAnswer)
{
    Policies policies(nullptr, limits);
    apply(policies, 2, set, 1, policy(1, "1@1:1=1/").get());
    Counters &counters = *policies.get({1, 1})->pair(1)->counters;
    counters = {5, 50};
    zel_stat_request_entry_t query{0, 0, 0, 1, 1, service::stat_flag_clear};
    zel_stat_request_entry_t *queries[] = {&query};
    const zel_stat_request_t record{1, queries};
    const Request request =
        read_request(message_of({ZEL_API_STATS_PULL, 1, 0, service::op_code_stats}, &record).data());
    const auto expect = [&](uint64_t packets, uint64_t bytes) {
        EXPECT_EQ(counters.packets, packets);
        EXPECT_EQ(counters.bytes, bytes);
    };
    const auto clear = [&](bool is_answered) {
        Statistics statistics(policies, request, 1000, false);
        statistics.collect();
        expect(0, 0);
        counters = {1, 10}; // a packet in between
        if (is_answered) {
            EXPECT_EQ(statistics.answer().header.error, service::error_none);
        }
    };
    clear(false);
    expect(6, 60);
    clear(true);
    expect(1, 10);
}
