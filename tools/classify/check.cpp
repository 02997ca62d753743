#include "tools/classify/check.hpp"

#include "tools/classify/header_space.hpp"
#include "wire/graph.hpp"
#include "wire/records.hpp"

#include <algorithm>
#include <random>
#include <set>

namespace classify {

namespace {

using service::PacketHeader;
using Kind = Finding::Kind;
using Result = CoverSearch::Result;

// Packets to try before a search: most pairs are decided by one of them.
constexpr std::size_t num_samples = 24;
constexpr uint64_t seed = 1; // the same packets each time

// Rules that together cover a pair are made fewer when they are at most so many.
constexpr std::size_t most_to_reduce = 64;

template <class R> bool is_disabled(const R &record) { return record.op_mode == service::op_mode_disabled; }

// Whether two groups do the same to a packet, whatever the ids of their actions are.
bool do_the_same(const zel_action_grp_t &a, const zel_action_grp_t &b)
{
    const auto is_same = [](const zel_action_t *one, const zel_action_t *other) {
        zel_action_t renamed = *one;
        renamed.id = other->id;
        return zel::wire::equal(zel::wire::action, &renamed, other);
    };
    return a.op_mode == b.op_mode && a.num_action == b.num_action &&
           std::equal(a.actions, a.actions + a.num_action, b.actions, is_same);
}

// A policy that applies to all packets.
zel_policy_t applied_to_all(const zel_policy_t &policy)
{
    zel_policy_t free = policy;
    free.op_mode = service::op_mode_active;
    free.if_group = {};
    return free;
}

class Checker {
public:
    Checker(const zel_policy_t &policy, const CheckLimits &limits)
        : policy_(policy), limits_(limits), classifier_(applied_to_all(policy)), cubes_(classifier_),
          search_(cubes_, limits.most_steps)
    {
        zel_policy_t active = policy;
        active.op_mode = service::op_mode_active;
        active.match_action_pair_group = {};
        const Classifier interfaces(active);
        policy_never_ = interfaces.never();
        if (!interfaces.bindings().empty())
            binding_ = interfaces.bindings().front();
    }

    std::vector<Finding> run()
    {
        if (policy_never_ != Never::no || (policy_.op_mode != service::op_mode_active && !is_disabled(policy_)))
            add(Kind::policy_never).never = policy_never_ != Never::no ? policy_never_ : Never::policy_mode;
        check_matches();
        group_actions();
        for (uint32_t rule = 0; rule < classifier_.rules().size(); ++rule)
            check_rule(rule);
        std::stable_sort(findings_.begin(), findings_.end(),
                         [&](const Finding &a, const Finding &b) { return place_[a.pair] < place_[b.pair]; });
        return std::move(findings_);
    }

private:
    std::span<zel_match_action_pair_t *const> pairs() const
    {
        return {policy_.match_action_pair_group.pairs, policy_.match_action_pair_group.num_pair};
    }
    const zel_match_action_pair_t &pair_of(uint32_t rule) const { return *pairs()[classifier_.rules()[rule].pair]; }

    Finding &add(Kind kind, uint16_t pair = 0)
    {
        Finding &finding = findings_.emplace_back();
        finding.kind = kind;
        finding.pair = pair;
        return finding;
    }

    // ---- Matches that never match

    void check_matches()
    {
        std::map<uint16_t, Never> never;
        for (const Classifier::Unused &unused : classifier_.unused())
            never.emplace(unused.match, unused.never);
        for (uint32_t i = 0; i < pairs().size(); ++i) {
            const zel_match_action_pair_t &pair = *pairs()[i];
            place_[pair.id] = i;
            const Classifier::Outcome &outcome = classifier_.pairs()[i];
            for (const zel_match_t *const match : std::span(pair.match_group.matches, pair.match_group.num_match))
                if (const auto found = never.find(match->id); found != never.end() && !is_disabled(*match)) {
                    add_never(pair.id, match->id, found->second, outcome);
                    never.erase(found); // once is enough
                }
            const bool is_meant = is_disabled(pair) || is_disabled(pair.match_group);
            const bool is_of_pair = outcome.never == Never::pair_mode || outcome.never == Never::group_mode ||
                                    outcome.never == Never::logical_op || outcome.never == Never::empty_group;
            if (is_of_pair && !is_meant)
                add_never(pair.id, 0, outcome.never, outcome);
        }
    }

    void add_never(uint16_t pair, uint16_t match, Never never, const Classifier::Outcome &outcome)
    {
        Finding &finding = add(Kind::match_never, pair);
        finding.match = match;
        finding.never = never;
        finding.kills_pair = outcome.rule == Classifier::none;
    }

    // ---- Pairs

    // Rules whose actions do the same have the same number.
    void group_actions()
    {
        std::vector<const zel_action_grp_t *> groups;
        std::map<uint16_t, std::vector<uint32_t>> by_number; // of actions, so that few are compared
        for (uint32_t rule = 0; rule < classifier_.rules().size(); ++rule) {
            const zel_action_grp_t &group = pair_of(rule).action_group;
            const uint32_t first_type = group.num_action != 0 ? group.actions[0]->type : 0;
            std::vector<uint32_t> &candidates = by_number[static_cast<uint16_t>(group.num_action * 64 + first_type)];
            const auto found = std::find_if(candidates.begin(), candidates.end(),
                                            [&](uint32_t number) { return do_the_same(*groups[number], group); });
            actions_.push_back(found != candidates.end() ? *found : static_cast<uint32_t>(groups.size()));
            if (found != candidates.end())
                continue;
            candidates.push_back(static_cast<uint32_t>(groups.size()));
            groups.push_back(&group);
        }
    }

    void check_rule(uint32_t rule)
    {
        if (!cubes_.is_known(rule))
            return (void)add(Kind::undecided, pair_of(rule).id);
        if (cubes_.of(rule).empty())
            return check_contradiction(rule);
        std::optional<PacketHeader> taken = sample(rule);
        if (!taken && !find_taken(rule, taken))
            return;
        check_redundant(rule, *taken);
    }

    PacketHeader packet_of(const Cube &cube, const std::array<uint64_t, Cube::num_words> &bits) const
    {
        return cubes_.packet(cube, bits);
    }

    // As the policy's interfaces are bound, so that an explanation says the same.
    PacketHeader bound(PacketHeader packet) const
    {
        packet.interface = binding_.interface;
        packet.vlan = binding_.vlan;
        packet.vrf = binding_.vrf;
        return packet;
    }

    std::array<uint64_t, Cube::num_words> random_bits() { return {random_(), random_(), random_(), 0}; }

    uint32_t classify(const PacketHeader &packet, uint32_t from = 0) const
    {
        return classifier_.classify(packet, pack(packet), from);
    }

    // A packet that the rule takes, if there is one among a few.
    std::optional<PacketHeader> sample(uint32_t rule)
    {
        const std::span<const Cube> cubes = cubes_.of(rule);
        for (std::size_t i = 0; i < num_samples; ++i) {
            const auto bits = i < num_samples / 4 ? std::array<uint64_t, Cube::num_words>{} : random_bits();
            const PacketHeader packet = packet_of(cubes[i % cubes.size()], bits);
            if (classify(packet) == classifier_.rules()[rule].pair)
                return packet;
        }
        return std::nullopt;
    }

    // Decides whether earlier rules take all packets of the rule. False when the rule has
    // no packet, or that is not known; both are then reported.
    bool find_taken(uint32_t rule, std::optional<PacketHeader> &taken)
    {
        search_.forget_used();
        for (const Cube &cube : cubes_.of(rule)) {
            const Result result = search(cube, search_.near(cube), [&](uint32_t other) { return other < rule; });
            if (result == Result::covered)
                continue;
            taken = packet_of(search_.open(), {});
            // A rule that is too large for cubes may take it.
            if (result == Result::open && classify(*taken) == classifier_.rules()[rule].pair)
                return true;
            add(Kind::undecided, pair_of(rule).id);
            return false;
        }
        add_covered(rule);
        return false;
    }

    template <class TakesPart> Result search(const Cube &cube, const CoverSearch::Covers &covers, TakesPart takes_part)
    {
        return search_.search(cube, covers, takes_part, limits_.most_steps_of_search);
    }

    bool is_covered(uint32_t rule, const std::set<uint32_t> &by)
    {
        const auto cubes = cubes_.of(rule);
        return std::all_of(cubes.begin(), cubes.end(), [&](const Cube &cube) {
            return search(cube, search_.near(cube), [&](uint32_t other) { return by.contains(other); }) ==
                   Result::covered;
        });
    }

    void add_covered(uint32_t rule)
    {
        std::set<uint32_t> by(search_.used().begin(), search_.used().end());
        const std::set<uint32_t> all = by;
        for (const uint32_t one : all)
            if (is_covered(rule, {one})) {
                by = {one};
                break;
            }
        for (const uint32_t one : all)
            if (by.size() > 1 && all.size() <= most_to_reduce) {
                by.erase(one);
                if (!is_covered(rule, by))
                    by.insert(one);
            }
        Finding &finding = add(Kind::covered, pair_of(rule).id);
        const PacketHeader packet = packet_of(cubes_.of(rule).front(), {});
        const uint32_t taker = classify(packet);
        finding.witness = bound(packet);
        finding.others.push_back(pairs()[taker]->id);
        for (const uint32_t one : by)
            if (classifier_.rules()[one].pair != taker)
                finding.others.push_back(pair_of(one).id);
        if (by.size() == 1) // one is enough, whichever takes the packet
            finding.others = {pair_of(*by.begin()).id};
    }

    // ---- Redundant pairs

    // Whether the rule behind it that would take a packet does the same.
    bool has_same_successor(uint32_t rule, const PacketHeader &packet) const
    {
        const uint32_t next = classify(packet, classifier_.rules()[rule].pair + 1);
        return next != Classifier::none && actions_[classifier_.pairs()[next].rule] == actions_[rule];
    }

    void check_redundant(uint32_t rule, const PacketHeader &taken)
    {
        if (!has_same_successor(rule, taken))
            return;
        const auto cubes = cubes_.of(rule);
        for (std::size_t i = 0; i < num_samples; ++i) {
            const PacketHeader packet = packet_of(cubes[i % cubes.size()], random_bits());
            if (classify(packet) == classifier_.rules()[rule].pair && !has_same_successor(rule, packet))
                return;
        }
        search_.forget_used();
        const Result result = search_successors(rule);
        if (result == Result::open)
            return;
        Finding &finding = add(result == Result::covered ? Kind::redundant : Kind::undecided, pair_of(rule).id);
        if (result != Result::covered)
            return;
        finding.witness = bound(taken);
        finding.others = {pairs()[classify(taken, classifier_.rules()[rule].pair + 1)]->id};
    }

    // Covered: each packet of the rule that no earlier rule takes meets a later rule, and
    // the first of these does the same. So no part of the rule may be left over by all
    // others, nor reach a rule that does something else.
    Result search_successors(uint32_t rule)
    {
        for (uint32_t later = rule + 1; later < cubes_.size(); ++later)
            if (!cubes_.is_known(later) && actions_[later] != actions_[rule])
                return Result::undecided;
        const auto cubes = cubes_.of(rule);
        for (const Cube &cube : cubes)
            if (const Result result = search_successors(rule, cube); result != Result::covered)
                return result;
        return Result::covered;
    }

    Result search_successors(uint32_t rule, const Cube &cube)
    {
        const CoverSearch::Covers covers = search_.near(cube);
        const auto is_other = [&](uint32_t other) { return other != rule; };
        if (const Result result = prove(rule, cube, covers, is_other); result != Result::covered)
            return result;
        for (const CoverSearch::Cover &later : covers) {
            if (later.rule <= rule || actions_[later.rule] == actions_[rule])
                continue;
            const auto is_before = [&](uint32_t other) { return other < later.rule && other != rule; };
            if (const Result result = prove(rule, cube & *later.cube, covers, is_before); result != Result::covered)
                return result;
        }
        return Result::covered;
    }

    // What is open must be so for the classifier, which has all rules.
    template <class TakesPart>
    Result prove(uint32_t rule, const Cube &cube, const CoverSearch::Covers &covers, TakesPart takes_part)
    {
        const Result result = search(cube, covers, takes_part);
        if (result != Result::open)
            return result;
        const PacketHeader packet = packet_of(search_.open(), {});
        const bool is_proved = classify(packet) == classifier_.rules()[rule].pair && !has_same_successor(rule, packet);
        return is_proved ? Result::open : Result::undecided;
    }

    // ---- Contradictions

    // Two matches that exclude each other, or all matches when it takes more of them.
    void check_contradiction(uint32_t rule)
    {
        const auto alternatives = classifier_.alternatives(classifier_.rules()[rule]);
        Finding &finding = add(Kind::contradiction, pair_of(rule).id);
        finding.kills_pair = true;
        for (std::size_t i = 0; i < alternatives.size(); ++i)
            for (std::size_t k = 0; k < i; ++k) {
                const std::vector<Cube> a = cubes_.cubes_of(alternatives[k]);
                const auto both = RuleCubes::product(a, cubes_.cubes_of(alternatives[i]));
                if (!both || !both->empty())
                    continue;
                finding.others = {alternatives[k].match, alternatives[i].match};
                finding.witness = bound(packet_of(a.front(), {}));
                return;
            }
        for (const Classifier::Alternative &alternative : alternatives)
            finding.others.push_back(alternative.match);
        finding.witness = bound(packet_of(cubes_.cubes_of(alternatives.front()).front(), {}));
    }

    const zel_policy_t &policy_;
    const CheckLimits limits_;
    Classifier classifier_;
    RuleCubes cubes_;
    CoverSearch search_;
    Never policy_never_ = Never::no;
    Classifier::Binding binding_{};
    std::vector<uint32_t> actions_{}; // by rule
    std::map<uint16_t, uint32_t> place_{};
    std::mt19937_64 random_{seed}; // NOLINT(cert-msc51-cpp): that is what it is for
    std::vector<Finding> findings_{};
};

} // namespace

std::vector<Finding> check(const zel_policy_t &policy, const CheckLimits &limits)
{
    return Checker(policy, limits).run();
}

} // namespace classify
