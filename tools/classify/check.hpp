// What is wrong with a policy although it can be applied: pairs and matches that match
// no packet, and pairs that change nothing.
#pragma once

#include "tools/classify/classifier.hpp"

#include <optional>

namespace classify {

struct Finding {
    enum class Kind : uint8_t {
        policy_never,  // the policy matches no packet, see never
        match_never,   // a match that matches no packet, see never; its pair may match others
        contradiction, // no packet has what all matches of the pair need
        covered,       // pairs before it take all packets of the pair
        redundant,     // without the pair, others do the same to its packets
        undecided,     // whether it is one of the two: the search was too long
    };

    Kind kind;
    uint16_t pair = 0;
    uint16_t match = 0;
    Never never = Never::no;
    bool kills_pair = false;        // the pair matches no packet for it
    std::vector<uint16_t> others{}; // the pairs that take its packets, or the matches that exclude each other
    // covered: a packet of the pair that the first of the others takes. redundant: a packet
    // that the pair takes. contradiction: a packet that the first match takes.
    std::optional<service::PacketHeader> witness{};
};

struct CheckLimits {
    uint64_t most_steps = 400'000'000;         // of the whole check, some 5 ns each
    uint64_t most_steps_of_search = 4'000'000; // of one question
};

// Each finding is proved, and each pair without one as well: by a packet that the
// classifier gives to the pair. Neither holds for a pair that is reported as undecided.
// A policy that is disabled is checked as if it were active.
std::vector<Finding> check(const zel_policy_t &policy, const CheckLimits &limits = {});

} // namespace classify
