// One version of a policy. A version that others can see never changes: an update
// copies it, changes the copy, and puts the copy in its place. What the change does
// not touch is shared by both versions.
#pragma once

#include "tools/classify/classifier.hpp"
#include "tools/records/operator_protocol.hpp"
#include "tools/zeld/checksum.hpp"
#include "tools/zeld/id_map.hpp"
#include "tools/zeld/message.hpp"
#include "tools/zeld/objects.hpp"

#include <bitset>
#include <optional>

namespace zeld {

using classify::Classifier;
using classify::PackedHeader;

using IdSet = std::bitset<UINT16_MAX + 1>;

// What a pair has counted. Versions of a policy share the counters of a pair.
struct Counters {
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

struct Pair {
    zel_match_action_pair_t record{}; // its groups have no members
    std::vector<uint16_t> matches{};  // ids, in the group's order
    std::vector<uint16_t> actions{};
    uint64_t order = 0; // pairs of a policy are tried in ascending order
    std::shared_ptr<Counters> counters{};
};
using PairRef = std::shared_ptr<const Pair>;

// The rows of a policy in the state file; see store.hpp.
struct Rows {
    uint32_t count = 0;
    uint64_t checksum = 0; // sum of the rows' checksums
    uint64_t work = 0;     // that the rows behind the first take to read, in bytes
};

class Policy {
public:
    // Throws Refusal unless pair ids are unique and each match id and each action id
    // names one object.
    explicit Policy(const zel_policy_t &given);

    uint16_t id() const { return record_.id; }
    uint32_t num_pairs() const { return num_pairs_; }
    const zel_policy_t &record() const { return record_; } // its groups have no members
    std::span<const zel_if_element_t> interfaces() const;
    const Pair *pair(uint16_t id) const;
    std::vector<const Pair *> pairs_in_order() const;
    const zel_match_t &match(uint16_t id) const { return matches_.at(id); }
    const zel_action_t &action(uint16_t id) const { return actions_.at(id); }

    // Bytes of the message that creates the policy.
    std::size_t encoded_size() const;
    // Bytes of memory, with those of the classifier, whether it exists by now or not.
    std::size_t held() const;

    // The message that created the policy, while no part of it was changed; or null.
    std::shared_ptr<const Bytes> message{};
    Rows rows{};
    // Follows from the messages that made this version, so that equal numbers mean equal
    // versions, in every run of the service. Never 0.
    uint64_t revision = 0;
    // Another message has made this version of the one that had the revision until now.
    void revise(uint64_t checksum_of_message) { revision = std::max<uint64_t>(mix(revision, checksum_of_message), 1); }

    // Compiled when it is first asked for.
    const Classifier &classifier() const { return compiled().classifier; }
    // The first pair that matches, or null.
    const Pair *classify(const service::PacketHeader &packet, const PackedHeader &fields) const;

    // Changes of a version that nobody else can see. When one of them throws Refusal,
    // the version is changed in part: throw it away.
    void set_pair(const zel_match_action_pair_t &given);
    void remove_pair(uint16_t id);
    void set_pairs(const zel_match_action_pair_grp_t &given);
    // The policy's own fields, and the order of its pairs: all of them, or none when it stays.
    void set_frame(const service::PolicyFrame &fields, std::span<const uint16_t> order);
    void set_interfaces(std::vector<zel_if_element_t> interfaces);
    void set_interfaces(const zel_if_group_t &given);
    // Replaces a pair's group, or takes members out of it.
    template <class G> void set_group(uint16_t pair_id, const G &given);
    template <class G> void erase_members(uint16_t pair_id, const IdSet &erased);
    // Replaces an object wherever it stands. Returns false when there is none.
    template <class G> bool set_object(const MemberOf<G> &given) { return objects<G>().replace(given); }
    template <class Visit> void for_each_pair(Visit visit) const
    {
        pairs_.for_each([&](uint16_t, const PairRef &pair) { visit(*pair); });
    }
    template <class Visit> void for_each_match(Visit visit) const { matches_.for_each(visit); }
    // What is derived from a version does not hold for its changed copy.
    void forget_derived();

private:
    struct Compiled {
        Classifier classifier;
        std::vector<const Pair *> pairs; // in order
    };
    const Compiled &compiled() const;
    template <class G> Objects<MemberOf<G>> &objects();
    void add_pair(const zel_match_action_pair_t &given, uint64_t order, std::shared_ptr<Counters> counters);
    template <class G> std::vector<uint16_t> add_members(uint16_t pair_id, uint64_t order, const G &given);
    void place(Pair pair);
    void displace(const Pair &pair);
    template <class G> [[noreturn]] void refuse_other(uint16_t pair_id, uint64_t order, uint16_t id) const;

    zel_policy_t record_{};
    std::shared_ptr<const std::vector<zel_if_element_t>> interfaces_{};
    IdMap<PairRef> pairs_{};
    Objects<zel_match_t> matches_{};
    Objects<zel_action_t> actions_{};
    uint64_t next_order_ = 0;
    uint32_t num_pairs_ = 0;
    std::size_t pairs_held_ = 0;
    mutable std::shared_ptr<const Compiled> compiled_{};
};

// The ids of a pair's matches or actions, by the type of their group.
template <class G, class P> auto &ids_of(P &pair)
{
    if constexpr (std::is_same_v<G, zel_match_grp_t>)
        return pair.matches;
    else
        return pair.actions;
}
template <class G, class P> auto &group_of(P &pair)
{
    if constexpr (std::is_same_v<G, zel_match_grp_t>)
        return pair.match_group;
    else
        return pair.action_group;
}

// A policy as the library's records, for as long as the policy exists.
class PolicyGraph {
public:
    explicit PolicyGraph(const Policy &policy);
    PolicyGraph(const PolicyGraph &) = delete;
    PolicyGraph &operator=(const PolicyGraph &) = delete;

    const zel_policy_t &policy() const { return policy_; }

private:
    zel_policy_t policy_;
    std::vector<zel_match_action_pair_t> pairs_;
    std::vector<zel_match_action_pair_t *> pair_pointers_;
    std::vector<zel_match_t *> matches_;
    std::vector<zel_action_t *> actions_;
    std::vector<zel_if_element_t *> interfaces_;
};

} // namespace zeld
