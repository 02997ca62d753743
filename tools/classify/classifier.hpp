// Which pair of a policy a packet matches: the first one, in the policy's order.
#pragma once

#include "tools/classify/packed_header.hpp"
#include "zel.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace classify {

// Why a part of a policy matches no packet, whatever the packet is.
enum class Never : uint8_t {
    no,
    policy_mode, // op_mode is not active
    pair_mode,
    group_mode,
    match_mode,
    interfaces,   // each interface has an op_mode that is not active
    logical_op,   // unknown
    empty_group,  // at least one of no matches
    access_list,  // the service has no ACLs
    type,         // unknown
    tunnel_label, // a packet header contains no tunnel
    label_length, // 0, or longer than a label is
    no_elements,  // a service that lists nothing
};

// The bucket of masked addresses in a tuple; shift is 64 less the bits of the number.
inline uint32_t bucket_number(uint64_t addresses, uint32_t shift)
{
    const uint64_t hash = (addresses ^ addresses >> 29) * 0x9e3779b97f4a7c15;
    return shift == 64 ? 0 : static_cast<uint32_t>(hash >> shift);
}

// Rules are looked up by tuple space search: rules whose address masks are equal form a
// tuple, which is a hash table by the masked addresses. The whole rule is compared
// behind it, so all other fields take part, too.
class Classifier {
public:
    static constexpr uint32_t none = UINT32_MAX;

    // Compiles a policy, in which an id names one match. The policy is not needed
    // afterwards.
    explicit Classifier(const zel_policy_t &policy);

    // The first pair from one on that matches, as an index in the policy's group, or none.
    uint32_t classify(const service::PacketHeader &packet, const PackedHeader &fields, uint32_t from = 0) const;

    bool is_empty() const { return rules_.empty(); }

    // Steps for one packet in the worst case: patterns and interfaces to compare.
    std::size_t cost() const { return cost_; }

    // ---- What it was compiled to

    struct Binding {
        uint32_t interface;
        uint32_t vrf;
        uint16_t vlan;
    };
    struct Range {
        uint32_t first;
        uint32_t end;
    };
    // A match of a rule, which needs one of its patterns.
    struct Alternative {
        Range patterns; // in patterns_
        uint16_t match; // its id
    };
    // A rule needs one of its alternatives, or all of them.
    struct Rule {
        uint32_t pair;      // index in the policy's group
        Range alternatives; // in alternatives_
        bool needs_all;
    };
    // What became of a pair: a rule, or the reason why none.
    struct Outcome {
        uint32_t rule;
        Never never;
        uint16_t match; // whose fault it is, when it is a match's
    };
    struct Unused {
        uint16_t match;
        Never never;
    };

    std::span<const Rule> rules() const { return rules_; }
    std::span<const Outcome> pairs() const { return outcomes_; }
    std::span<const Alternative> alternatives(const Rule &rule) const
    {
        return std::span(alternatives_).subspan(rule.alternatives.first, length(rule.alternatives));
    }
    std::span<const Pattern> patterns(const Alternative &alternative) const
    {
        return std::span(patterns_).subspan(alternative.patterns.first, length(alternative.patterns));
    }
    std::span<const std::string> labels() const { return labels_; }
    // The policy applies to packets of these alone, if it is bound at all.
    bool is_bound() const { return is_bound_; }
    std::span<const Binding> bindings() const { return bindings_; }
    // Matches of the policy that match no packet.
    std::span<const Unused> unused() const { return unused_; }
    // Of the policy as a whole.
    Never never() const { return never_; }

    bool applies_to(const service::PacketHeader &packet) const;
    bool matches(const Pattern &pattern, const service::PacketHeader &packet, const PackedHeader &fields) const;
    bool matches(const Alternative &alternative, const service::PacketHeader &packet, const PackedHeader &fields) const;
    bool matches(const Rule &rule, const service::PacketHeader &packet, const PackedHeader &fields) const;

    // Bytes that the classifier takes, at most, for parts of a policy.
    static std::size_t size_of(const zel_match_t &match);
    static std::size_t size_of_rule(std::size_t num_matches);
    static constexpr std::size_t size_of_interface = sizeof(Binding);

private:
    friend class Compiler;

    // The rules of a bucket are in ascending order.
    struct Tuple {
        uint64_t mask;
        uint32_t first_rule;
        uint32_t shift;  // of the hash, which leaves the number of the bucket
        uint32_t bucket; // the first one, in buckets_
    };

    // A rule stands in at most so many buckets, and a tuple has at least so many rules.
    // All others are in the tuple without addresses, which is searched one by one.
    static constexpr std::size_t most_buckets = 8;
    static constexpr std::size_t least_rules = 4;

    static std::size_t length(const Range &range) { return range.end - range.first; }
    uint32_t first_rule_from(uint32_t pair) const;

    Never never_ = Never::no;
    bool is_bound_ = false;
    std::size_t cost_ = 0;
    std::vector<Binding> bindings_;
    std::vector<Outcome> outcomes_; // one a pair
    std::vector<Rule> rules_;
    std::vector<Alternative> alternatives_;
    std::vector<Pattern> patterns_;
    std::vector<std::string> labels_;
    std::vector<Unused> unused_;
    std::vector<Tuple> tuples_;     // by first rule, the one without addresses last
    std::vector<uint32_t> buckets_; // where each begins in entries_, and where the last one ends
    std::vector<uint32_t> entries_; // rules
};

// The label of a packet.
inline std::string_view label_of(const service::PacketHeader &packet)
{
    const std::size_t length = packet.label_length < sizeof packet.label ? packet.label_length : sizeof packet.label;
    return {reinterpret_cast<const char *>(packet.label), length};
}

// Whose fault it is: a match's, a pair's, or that of the whole policy.
constexpr bool is_of_match(Never never) { return never == Never::match_mode || never >= Never::access_list; }
constexpr bool is_of_policy(Never never) { return never == Never::policy_mode || never == Never::interfaces; }

// The reason in words: "the service has no ACLs".
const char *text_of(Never never);

} // namespace classify
