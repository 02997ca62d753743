// A policy as the service keeps it: its graph, the message that creates it, its
// classifier and its counters.
#pragma once

#include "tools/zeld/classifier.hpp"
#include "tools/zeld/message.hpp"

#include <unordered_map>

namespace zeld {

class Policy {
public:
    struct Counters {
        uint64_t packets = 0;
        uint64_t bytes = 0;
    };

    Policy(Owned<zel_policy_t> graph, Bytes message);

    const zel_policy_t &graph() const { return *graph_; }
    const Bytes &message() const { return message_; }
    std::size_t size() const { return size_; } // bytes of memory, approximately
    const Classifier &classifier() const { return classifier_; }

    // Counters by position in the pair group.
    const Counters &counters(uint32_t position) const { return counters_[position]; }
    void count(uint32_t position, uint32_t bytes);
    void clear(uint32_t position) { counters_[position] = {}; }

    // Copies the counters of the pairs that both policies have.
    void inherit_counters(const Policy &from);

    std::optional<uint32_t> position_of(uint16_t pair_id) const;

private:
    Owned<zel_policy_t> graph_;
    Bytes message_;
    Classifier classifier_;
    std::size_t size_;
    std::vector<Counters> counters_;
    std::unordered_map<uint16_t, uint32_t> positions_; // by pair id
};

} // namespace zeld
