// What differs between two versions of a policy, in words and as requests that change
// one into the other.
#pragma once

#include "tools/json/notation.hpp"
#include "zel.h"

#include <string>
#include <vector>

namespace zelctl {

enum class ChangeKind : uint8_t { unchanged, added, removed, changed };
const char *name_of(ChangeKind kind);

struct PairChange {
    uint16_t id;
    ChangeKind kind;
    std::vector<std::string> details{}; // if wanted: "match 7: dport 80 -> 443"
};

struct PolicyChange {
    uint16_t id = 0;
    ChangeKind kind = ChangeKind::unchanged;
    std::vector<std::string> details{}; // of the policy itself, its interfaces and its order
    std::vector<PairChange> pairs{};
    std::size_t num_kept = 0; // pairs that stay, changed or not

    std::size_t count(ChangeKind of) const;
};

// Null stands for no such policy; not both are.  The details of many pairs take longer than
// all the rest, so they are only written for who shows them.
enum class Details : uint8_t { of_policy, of_pairs };
PolicyChange compare(const zel_policy_t *before, const zel_policy_t *after, Details details = Details::of_pairs);

// Several lines of text: "+ pair 3: ...", "- pair 4: ...", "~ pair 5".
std::string show(const PolicyChange &change);
tools::Json to_json(const PolicyChange &change);

// The body of a change request, without its head, that makes the service's version of a
// policy the new one and keeps the counters of the pairs that stay.  Only what differs is
// sent.
struct ChangeElement {
    uint16_t type; // element_message or element_frame
    std::string bytes;
};
std::vector<ChangeElement> plan(uint32_t app, const zel_policy_t &before, const zel_policy_t &after);

} // namespace zelctl
