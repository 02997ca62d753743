// Which pair of a policy a packet matches: the first one, in the policy's order.
#pragma once

#include "tools/message/service_protocol.hpp"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace zeld {

// A packet's fields as words that are compared under masks; addresses, ports with
// protocol, EXP and Ethernet type, ARP opcode with LISP instance.
using Words = std::array<uint64_t, 3>;
Words words_of(const service::PacketHeader &packet);

class Classifier {
public:
    // Compiles a policy; keeps nothing of it.
    explicit Classifier(const zel_policy_t &policy);

    // Place of the first matching pair in the policy's pair group.
    std::optional<uint32_t> classify(const service::PacketHeader &packet, const Words &words) const;

    // Steps that a packet takes in the worst case.
    std::size_t cost() const { return bindings_.size() + rules_.size() + clauses_.size() + patterns_.size(); }

    // Bytes of memory, about.
    std::size_t footprint() const { return cost() * sizeof(Pattern); }

private:
    friend class Compiler;

    struct Binding {
        uint32_t interface;
        uint32_t vrf;
        uint16_t vlan;
    };
    // A packet matches a pattern when it has these bits, and this label if one is wanted.
    struct Pattern {
        Words value{};
        Words mask{};
        uint32_t label = no_label; // index in labels_
    };
    // A rule is a conjunction of clauses, a clause a disjunction of patterns: runs
    // of two flat arrays, because a packet is held against thousands of them.
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
    bool has(const service::PacketHeader &packet, const Words &words, const Clause &clause) const;
    bool has(const service::PacketHeader &packet, const Words &words, const Rule &rule) const;

    bool is_bound_ = false; // to the bindings alone
    std::vector<Binding> bindings_;
    std::vector<Rule> rules_;
    std::vector<Clause> clauses_;
    std::vector<Pattern> patterns_;
    std::vector<std::string> labels_;
};

} // namespace zeld
