// Which pair of a policy a packet matches: the first one, in the policy's order.
#pragma once

#include "tools/message/service_protocol.hpp"

#include <array>
#include <string>
#include <vector>

namespace zeld {

// The parts of a packed header.
inline uint64_t addresses(uint32_t sip, uint32_t dip) { return uint64_t{sip} << 32 | dip; }

inline uint64_t transport(uint16_t sport, uint16_t dport, uint8_t protocol, uint8_t exp, uint16_t ether_type)
{
    return uint64_t{sport} << 48 | uint64_t{dport} << 32 | uint64_t{protocol} << 24 | uint64_t{exp} << 16 | ether_type;
}

inline uint64_t overlay(uint32_t arp_opcode, uint32_t lisp_instance)
{
    return uint64_t{arp_opcode} << 32 | lisp_instance;
}

// The bucket of masked addresses in a tuple; shift is 64 less the bits of the number.
inline uint32_t bucket_number(uint64_t addresses, uint32_t shift)
{
    const uint64_t hash = (addresses ^ addresses >> 29) * 0x9e3779b97f4a7c15;
    return shift == 64 ? 0 : static_cast<uint32_t>(hash >> shift);
}

// A packet's fields packed into 64-bit numbers, which are compared under masks:
// addresses; ports, protocol, EXP and Ethernet type; ARP opcode and LISP instance.
using PackedHeader = std::array<uint64_t, 3>;
PackedHeader pack(const service::PacketHeader &packet);

class Policy;
struct Pair;

// Rules are looked up by tuple space search: rules whose address masks are equal form a
// tuple, which is a hash table by the masked addresses. The whole rule is compared
// behind it, so all other fields take part, too.
class Classifier {
public:
    // Compiles a policy, which must exist as long as the classifier.
    explicit Classifier(const Policy &policy);

    // The first pair that matches, or null.
    const Pair *classify(const service::PacketHeader &packet, const PackedHeader &fields) const;

    bool is_empty() const { return rules_.empty(); }

    // Steps for one packet in the worst case: patterns and interfaces to compare.
    std::size_t cost() const { return cost_; }

    // Bytes that the classifier takes, at most, for parts of a policy.
    static std::size_t size_of(const zel_match_t &match);
    static std::size_t size_of(const zel_action_t &) { return 0; }
    static std::size_t size_of_rule(std::size_t num_matches);
    static constexpr std::size_t size_of_interface = 12;

private:
    friend class Compiler;

    struct Binding {
        uint32_t interface;
        uint32_t vrf;
        uint16_t vlan;
    };
    // A packet matches a pattern when its fields under the mask equal the value, and
    // its label equals the pattern's, if that has one.
    struct Pattern {
        PackedHeader value{};
        PackedHeader mask{};
        uint32_t label = no_label; // index in labels_
    };
    static constexpr uint32_t no_label = UINT32_MAX;
    // A rule needs one of its alternatives, or all of them. An alternative is one match
    // of the policy, and needs one of its patterns. All lie in flat arrays.
    struct Range {
        uint32_t first;
        uint32_t end;
    };
    struct Rule {
        const Pair *pair;
        Range matches; // in matches_
        bool needs_all;
    };
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

    bool applies_to(const service::PacketHeader &packet) const;
    bool matches(const Range &patterns, const service::PacketHeader &packet, const PackedHeader &fields) const;
    bool matches(const Rule &rule, const service::PacketHeader &packet, const PackedHeader &fields) const;

    bool is_bound_ = false; // the policy has interfaces, and applies to packets of these alone
    std::size_t cost_ = 0;
    std::vector<Binding> bindings_;
    std::vector<Rule> rules_;
    std::vector<Range> matches_;
    std::vector<Pattern> patterns_;
    std::vector<std::string> labels_;
    std::vector<Tuple> tuples_;     // by first rule, the one without addresses last
    std::vector<uint32_t> buckets_; // where each begins in entries_, and where the last one ends
    std::vector<uint32_t> entries_; // rules
};

} // namespace zeld
