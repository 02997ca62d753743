// What the tools say about policies, against a simple classifier: explanations, checks,
// and the changes that make one policy another one. ZEL_CASES is the number of cases, each
// a policy with its packets.
#include "random_policies.hpp"
#include "tools/classify/check.hpp"
#include "tools/classify/explain.hpp"
#include "tools/zelctl/policy_changes.hpp"
#include "tools/zeld/change.hpp"

#include <gtest/gtest.h>

using namespace test;
using classify::Finding;
using service::PacketHeader;
using service::Reason;

namespace {

uint32_t num_cases()
{
    const char *const given = std::getenv("ZEL_CASES");
    return given != nullptr ? static_cast<uint32_t>(std::stoul(given)) : 1000;
}

std::span<zel_match_action_pair_t *const> pairs_of(const zel_policy_t &policy)
{
    return members(policy.match_action_pair_group);
}

bool takes(const zel_match_action_pair_t &pair, const PacketHeader &packet)
{
    return pair.op_mode == 0 && naive(pair.match_group, packet);
}

// The first pair from one on that takes a packet, as if the policy were active and not bound.
const zel_match_action_pair_t *taker(const zel_policy_t &policy, const PacketHeader &packet, std::size_t from = 0)
{
    for (std::size_t i = from; i < pairs_of(policy).size(); ++i)
        if (takes(*pairs_of(policy)[i], packet))
            return pairs_of(policy)[i];
    return nullptr;
}

// ---- Explanations

// Whether what a reason says of a field is so.
bool is_true(const Reason &reason, const PacketHeader &packet)
{
    if (reason.verdict != service::verdict_field)
        return true;
    const classify::Field &field = classify::fields_in_order.at(reason.field);
    if (field.of(classify::pack(packet)) != reason.found)
        return false;
    return reason.mask == 0 ? reason.found < reason.wanted || reason.found > reason.last
                            : (reason.found & reason.mask) != reason.wanted;
}

void expect_explained(const zel_policy_t &policy, const classify::Classifier &classifier, const PacketHeader &packet)
{
    const auto expected = naive(policy, packet);
    std::size_t i = 0;
    for (classify::Explanation explanation(policy, classifier, packet); !explanation.is_done(); ++i) {
        const Reason reason = explanation.next();
        ASSERT_TRUE(is_true(reason, packet));
        if (reason.verdict == service::verdict_took) {
            ASSERT_EQ(reason.pair_id, expected);
            ASSERT_TRUE(explanation.is_done());
        } else if (explanation.is_done()) {
            ASSERT_FALSE(expected) << "policy-wide reason " << unsigned{reason.verdict};
        } else {
            ASSERT_EQ(reason.pair_id, pairs_of(policy)[i]->id);
            ASSERT_FALSE(takes(*pairs_of(policy)[i], packet));
        }
    }
}

// ---- Policies of so few values that all packets can be tried

constexpr uint32_t num_packets = 8 * 8 * 5 * 2 * 4;

PacketHeader packet_number(uint32_t i)
{
    PacketHeader packet{};
    packet.sip = i % 8, i /= 8;
    packet.dport = static_cast<uint16_t>(i % 8), i /= 8;
    packet.exp = static_cast<uint8_t>(i % 5), i /= 5;
    packet.protocol = i % 2 == 0 ? 6 : 17, i /= 2;
    packet.ether_type = static_cast<uint16_t>(i);
    return packet;
}

Owned<zel_policy_t> small_policy(Dice &dice)
{
    auto policy = random_policy(dice, 9);
    for (zel_match_action_pair_t *const pair : members(policy->match_action_pair_group)) {
        auto action = make<zel_action_t>();
        action->type = ZEL_ACTION_TYPE_SET_VRF;
        action->id = pair->id;
        action->param.set_vrf.vrf = dice.below(2);
        append(pair->action_group, std::move(action));
        for (zel_match_t *const match : members(pair->match_group)) {
            const auto narrow = [](zel_match_service_element_t &element) {
                element.dip_mask = 0;
                element.sport_mask = 0;
            };
            for (auto *const element :
                 members(match->type == ZEL_MATCH_TYPE_SERVICE ? match->param.service : zel_match_service_t{}))
                narrow(*element);
            if (match->type == ZEL_MATCH_TYPE_SERVICE_ELEMENT)
                narrow(match->param.service_element);
            if (match->type == ZEL_MATCH_TYPE_LABEL || match->type >= ZEL_MATCH_TYPE_LISP_PROTO)
                match->type = ZEL_MATCH_TYPE_NO_PARAM;
            else if (match->type == ZEL_MATCH_TYPE_ARP_OPCODE)
                match->type = ZEL_MATCH_TYPE_EXP, match->param.exp.exp = static_cast<uint8_t>(dice.below(4));
        }
    }
    return policy;
}

// What holds for a pair over all packets.
struct Facts {
    bool is_alive = false;
    bool is_redundant = true; // of those packets that it takes
};

std::vector<Facts> facts_of(const zel_policy_t &policy)
{
    std::vector<Facts> facts(pairs_of(policy).size());
    const auto vrf_of = [](const zel_match_action_pair_t &pair) {
        return pair.action_group.actions[0]->param.set_vrf.vrf;
    };
    for (uint32_t n = 0; n < num_packets; ++n) {
        const PacketHeader packet = packet_number(n);
        std::size_t i = 0;
        while (i < facts.size() && !takes(*pairs_of(policy)[i], packet))
            ++i;
        if (i == facts.size())
            continue;
        const auto *const next = taker(policy, packet, i + 1);
        facts[i].is_alive = true;
        facts[i].is_redundant &= next != nullptr && vrf_of(*next) == vrf_of(*pairs_of(policy)[i]);
    }
    return facts;
}

bool is_active(const zel_match_action_pair_t &pair) { return pair.op_mode == 0 && pair.match_group.op_mode == 0; }

// A packet that a finding shows must show it.
void expect_witness(const zel_policy_t &policy, const zel_match_action_pair_t &pair, const Finding &finding)
{
    const PacketHeader &packet = *finding.witness;
    const auto *const took = taker(policy, packet);
    if (finding.kind == Finding::Kind::covered) {
        EXPECT_TRUE(takes(pair, packet));
        EXPECT_NE(took, &pair);
    } else if (finding.kind == Finding::Kind::redundant) {
        EXPECT_EQ(took, &pair);
    } else {
        EXPECT_FALSE(takes(pair, packet));
    }
    classify::Classifier const classifier(policy);
    if (policy.op_mode == 0 && classifier.never() == classify::Never::no) {
        EXPECT_TRUE(classifier.applies_to(packet));
    }
}

// ---- Changes

// Objects by their id, of which policies are made.
struct Pool {
    std::vector<Owned<zel_match_t>> matches;
    std::vector<Owned<zel_action_t>> actions;

    void change(Dice &dice)
    {
        matches.resize(6);
        actions.resize(4);
        for (std::size_t i = 0; i < matches.size(); ++i)
            if (matches[i] == nullptr || dice.below(4) == 0) {
                matches[i] = random_match(dice);
                matches[i]->id = static_cast<uint16_t>(i);
            }
        for (std::size_t i = 0; i < actions.size(); ++i)
            if (actions[i] == nullptr || dice.below(4) == 0) {
                actions[i] = make<zel_action_t>();
                actions[i]->id = static_cast<uint16_t>(i);
                actions[i]->type = ZEL_ACTION_TYPE_SET_VRF;
                actions[i]->param.set_vrf.vrf = dice.below(3);
            }
    }
};

// A pair whose structure follows from two numbers.
Owned<zel_match_action_pair_t> pair_of(const Pool &pool, uint16_t id, uint32_t seed)
{
    Dice dice(seed * 100 + id);
    auto pair = make<zel_match_action_pair_t>();
    pair->id = id;
    pair->op_mode = dice.below(8) == 0 ? 1 : 0;
    dice.roll(pair->match_group.id, 3), dice.roll(pair->match_group.logical_op, 2);
    for (uint32_t n = dice.below(3); n != 0; --n)
        append(pair->match_group, clone(*pool.matches[dice.below(6)]));
    for (uint32_t n = dice.below(3); n != 0; --n)
        append(pair->action_group, clone(*pool.actions[dice.below(4)]));
    return pair;
}

// Policies of neighbouring versions have much in common.
Owned<zel_policy_t> version_of(const Pool &pool, Dice &dice)
{
    auto policy = make<zel_policy_t>();
    policy->id = 5;
    policy->version = static_cast<uint16_t>(dice.below(2));
    policy->op_mode = dice.rarely() ? 1 : 0;
    std::vector<uint16_t> ids;
    for (uint16_t id = 0; id < 12; ++id)
        if (dice.below(6) != 0)
            ids.insert(dice.rarely() ? ids.begin() : ids.end(), id);
    for (const uint16_t id : ids)
        append(policy->match_action_pair_group, pair_of(pool, id, dice.rarely() ? 2 : 1));
    for (uint32_t n = dice.below(3); n != 0; --n) {
        auto bound = make<zel_if_element_t>();
        bound->interface = n;
        append(policy->if_group, std::move(bound));
    }
    return policy;
}

Answer run(Policies &policies, const std::string &array)
{
    ChangeJob job(policies, array.data());
    try {
        while (job.state() == Job::State::preparing)
            job.run(Slice());
        job.apply();
        policies.commit();
    } catch (const Refusal &refusal) {
        return failure(refusal.error(), refusal.what());
    }
    return job.answer();
}

const Policy &policy_5(const Policies &policies) { return *policies.all().at({0, 5}); }

bool holds(const Policies &policies, const zel_policy_t &wanted)
{
    return equal(PolicyGraph(policy_5(policies)).policy(), wanted);
}

} // namespace

TEST(Answers, ExplanationsAgreeWithTheClassifier)
{
    Dice dice(1);
    for (uint32_t n = 0; n < num_cases(); ++n) {
        const auto policy = random_policy(dice, 12);
        const classify::Classifier classifier(*policy);
        for (int i = 0; i < 10 && !HasFailure(); ++i)
            expect_explained(*policy, classifier, random_packet(dice));
    }
}

// On policies of few values, a check finds exactly the pairs that a trial of all packets finds.
TEST(Answers, ChecksAreExact)
{
    Dice dice(2);
    std::map<Finding::Kind, int> num_found;
    for (uint32_t n = 0; n < num_cases() / 2 && !HasFailure(); ++n) {
        const auto policy = small_policy(dice);
        const std::vector<Facts> facts = facts_of(*policy);
        const std::vector<Finding> findings = classify::check(*policy);
        for (std::size_t i = 0; i < facts.size(); ++i) {
            const zel_match_action_pair_t &pair = *pairs_of(*policy)[i];
            bool is_dead = false;
            bool is_redundant = false;
            for (const Finding &finding : findings) {
                if (finding.pair != pair.id || finding.kind == Finding::Kind::policy_never)
                    continue;
                ++num_found[finding.kind];
                is_dead |= finding.kind == Finding::Kind::covered || finding.kills_pair;
                is_redundant |= finding.kind == Finding::Kind::redundant;
                EXPECT_NE(finding.kind, Finding::Kind::undecided);
                if (finding.witness)
                    expect_witness(*policy, pair, finding);
            }
            const bool is_meant = !is_active(pair) || std::ranges::any_of(members(pair.match_group), [](const auto *m) {
                return m->op_mode != 0;
            });
            EXPECT_EQ(is_redundant, facts[i].is_alive && facts[i].is_redundant) << n << " pair " << pair.id;
            if (is_dead || !is_meant) {
                EXPECT_NE(is_dead, facts[i].is_alive) << n << " pair " << pair.id;
            }
        }
    }
    for (const auto kind :
         {Finding::Kind::covered, Finding::Kind::redundant, Finding::Kind::contradiction, Finding::Kind::match_never})
        EXPECT_GT(num_found[kind], 5) << static_cast<int>(kind);
}

// Random packets attack what a check says about policies of all kinds of matches.
TEST(Answers, ChecksWithstandPackets)
{
    Dice dice(3);
    for (uint32_t n = 0; n < num_cases() && !HasFailure(); ++n) {
        const auto policy = random_policy(dice, 12);
        std::set<uint16_t> dead;
        for (const Finding &finding : classify::check(*policy)) {
            const auto pairs = pairs_of(*policy);
            const auto pair = std::ranges::find_if(pairs, [&](const auto *one) { return one->id == finding.pair; });
            if (finding.witness)
                expect_witness(*policy, **pair, finding);
            if (finding.kind == Finding::Kind::covered || finding.kills_pair)
                dead.insert(finding.pair);
        }
        for (int i = 0; i < 50; ++i)
            if (const auto *const took = taker(*policy, random_packet(dice))) {
                EXPECT_FALSE(dead.contains(took->id)) << n;
            }
    }
}

// A check that may take few steps says so, and nothing that is wrong.
TEST(Answers, BoundedChecksDoNotGuess)
{
    Dice dice(2);
    int num_undecided = 0;
    for (int n = 0; n < 300; ++n) {
        const auto policy = small_policy(dice);
        const std::vector<Facts> facts = facts_of(*policy);
        for (const Finding &finding : classify::check(*policy, {30, 10})) {
            const auto pairs = pairs_of(*policy);
            const auto pair = std::ranges::find_if(pairs, [&](const auto *one) { return one->id == finding.pair; });
            num_undecided += finding.kind == Finding::Kind::undecided ? 1 : 0;
            if (finding.kind == Finding::Kind::covered) {
                EXPECT_FALSE(facts[static_cast<std::size_t>(pair - pairs.begin())].is_alive);
            }
        }
    }
    EXPECT_GT(num_undecided, 0);
}

// What is sent makes one version the other, and keeps the counters of the pairs that stay.
TEST(Answers, ChangesMakeTheOtherVersion)
{
    Dice dice(4);
    for (uint32_t n = 0; n < num_cases() && !HasFailure(); ++n) {
        Pool pool;
        pool.change(dice);
        const auto before = version_of(pool, dice);
        pool.change(dice);
        const auto after = version_of(pool, dice);
        Policies policies(nullptr, {1 << 20, 1 << 24});
        const auto created = zelctl::change_request(0, false, {{0, 5, 0}},
                                                    {{service::element_message, zelctl::encode_policy(0, *before)}});
        ASSERT_EQ(run(policies, created).header.status, service::status_ok);
        ASSERT_TRUE(holds(policies, *before));
        policy_5(policies).for_each_pair([](const Pair &pair) { pair.counters->packets = 100u + pair.record.id; });

        const auto changes = zelctl::plan(0, *before, *after);
        const bool is_same = equal(*before, *after);
        EXPECT_EQ(changes.empty(), is_same);
        EXPECT_EQ(zelctl::compare(before.get(), after.get()).kind == zelctl::ChangeKind::unchanged, is_same);
        const uint64_t revision = policy_5(policies).revision;
        const auto request = [&](bool is_dry_run, uint64_t expected) {
            return zelctl::change_request(0, is_dry_run, {{expected, 5, 0}}, changes);
        };
        ASSERT_EQ(run(policies, request(true, revision)).header.status, service::status_ok);
        ASSERT_EQ(run(policies, request(false, revision + 1)).header.error, service::error_conflict);
        ASSERT_TRUE(holds(policies, *before)); // so far nothing was changed
        const Answer answer = run(policies, request(false, revision));
        ASSERT_EQ(answer.header.status, service::status_ok) << answer.header.msg;
        ASSERT_TRUE(holds(policies, *after)) << n;
        for (const zel_match_action_pair_t *const pair : pairs_of(*after)) {
            const auto old = pairs_of(*before);
            const bool stays = std::ranges::any_of(old, [&](const auto *one) { return one->id == pair->id; });
            EXPECT_EQ(policy_5(policies).pair(pair->id)->counters->packets, stays ? 100u + pair->id : 0u);
        }
    }
}

// Several changes are made together or not at all.
TEST(Answers, RefusedChangesLeaveNothing)
{
    Policies policies(nullptr, {1 << 20, 1 << 24});
    const auto given = policy(5, "1@3:5=80/7=100");
    const std::string whole = zelctl::encode_policy(0, *given);
    const service::PolicyFrame wrong{0, 0, 6, 1};
    const std::string frame(reinterpret_cast<const char *>(&wrong), sizeof wrong);
    const auto sent = [&](const std::vector<zelctl::ChangeElement> &elements) {
        return run(policies, zelctl::change_request(0, false, {}, elements)).header.error;
    };
    using zelctl::ChangeElement;
    const ChangeElement message{service::element_message, whole};
    EXPECT_EQ(sent({message, {service::element_frame, frame}}), service::error_not_found);
    EXPECT_EQ(sent({{service::element_message, whole.substr(0, whole.size() - 1)}}), service::error_malformed);
    EXPECT_EQ(sent({{service::element_frame, frame.substr(1)}}), service::error_malformed);
    EXPECT_EQ(sent({{service::element_show, frame}}), service::error_malformed);
    EXPECT_EQ(policies.all().size(), 0u);
    EXPECT_EQ(policies.held(), 0u);
    EXPECT_EQ(sent({message}), service::error_none);
    service::PolicyFrame right{0, 0, 5, 9};
    std::string order(reinterpret_cast<const char *>(&right), sizeof right);
    EXPECT_EQ(sent({{service::element_frame, order + std::string("\x01\x00\x01\x00", 4)}}), service::error_not_found);
    EXPECT_EQ(sent({{service::element_frame, order + std::string("\x01\x00", 2)}}), service::error_none);
    EXPECT_EQ(policy_5(policies).record().version, 9);
}
