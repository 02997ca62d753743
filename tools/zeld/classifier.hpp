// Which pair of a policy a packet matches: the first one, in the policy's order.
#pragma once

#include "tools/message/service_protocol.hpp"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace zeld {

// A packet's fields packed into 64-bit numbers, which are compared under masks:
// addresses; ports, protocol, EXP and Ethernet type; ARP opcode and LISP instance.
using PackedHeader = std::array<uint64_t, 3>;
PackedHeader pack(const service::PacketHeader &packet);

class Classifier {
public:
    // Compiles a policy. The policy is not needed afterwards.
    explicit Classifier(const zel_policy_t &policy);

    // The position of the first matching pair in the policy's pair group.
    std::optional<uint32_t> classify(const service::PacketHeader &packet, const PackedHeader &fields) const;

    // Steps for one packet in the worst case.
    std::size_t cost() const { return bindings_.size() + rules_.size() + clauses_.size() + patterns_.size(); }

    // Bytes of memory, approximately.
    std::size_t footprint() const { return cost() * sizeof(Pattern); }

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
    // A rule needs all of its clauses, a clause one of its patterns. Both are ranges
    // of flat arrays, because a packet is compared with thousands of patterns.
    struct Clause {
        uint32_t first_pattern;
        uint32_t end_pattern;
    };
    struct Rule {
        uint32_t pair;
        uint32_t first_clause;
        uint32_t end_clause;
    };
    static constexpr uint32_t no_label = UINT32_MAX;

    bool applies_to(const service::PacketHeader &packet) const;
    bool matches(const Clause &clause, const service::PacketHeader &packet, const PackedHeader &fields) const;
    bool matches(const Rule &rule, const service::PacketHeader &packet, const PackedHeader &fields) const;

    bool is_bound_ = false; // the policy has interfaces, and applies to packets of these alone
    std::vector<Binding> bindings_;
    std::vector<Rule> rules_;
    std::vector<Clause> clauses_;
    std::vector<Pattern> patterns_;
    std::vector<std::string> labels_;
};

} // namespace zeld
