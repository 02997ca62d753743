// Why a packet matches a pair of a policy, and why it matches none of those above.
#pragma once

#include "tools/classify/classifier.hpp"
#include "tools/records/operator_protocol.hpp"

namespace classify {

// The reasons of one policy, one after the other. The classifier decides what matches;
// what is here only looks for the condition that failed. The arguments must exist as
// long as the object.
class Explanation {
public:
    Explanation(const zel_policy_t &policy, const Classifier &classifier, const service::PacketHeader &packet);

    bool is_done() const { return is_done_; }
    service::Reason next();

    // Steps for all reasons: patterns to compare.
    static std::size_t cost(const Classifier &classifier);

private:
    service::Reason about_policy();
    service::Reason about_pair(uint32_t pair) const;
    void why_not(service::Reason &reason, const Classifier::Rule &rule) const;
    void why_not(service::Reason &reason, const Classifier::Alternative &alternative, const Pattern &closest) const;
    uint32_t num_failed(const Pattern &pattern) const;

    const zel_policy_t &policy_;
    const Classifier &classifier_;
    const service::PacketHeader &packet_;
    PackedHeader fields_;
    bool applies_;
    uint32_t taken_; // the pair that takes the packet, or none
    uint32_t pair_ = 0;
    bool is_done_ = false;
};

} // namespace classify
