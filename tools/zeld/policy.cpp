#include "tools/zeld/policy.hpp"

namespace zeld {

Policy::Policy(Owned<zel_policy_t> graph, Bytes message)
    : graph_(std::move(graph)), message_(std::move(message)), classifier_(*graph_),
      size_(graph_size(*graph_) + message_.size() + classifier_.footprint())
{
    const auto pairs = members(graph_->match_action_pair_group);
    counters_.resize(pairs.size());
    for (uint32_t i = 0; i < pairs.size(); ++i)
        positions_.emplace(pairs[i]->id, i);
}

void Policy::count(uint32_t position, uint32_t bytes)
{
    ++counters_[position].packets;
    counters_[position].bytes += bytes;
}

void Policy::inherit_counters(const Policy &from)
{
    for (const auto &[id, position] : positions_)
        if (const auto old = from.position_of(id))
            counters_[position] = from.counters(*old);
}

std::optional<uint32_t> Policy::position_of(uint16_t pair_id) const
{
    const auto found = positions_.find(pair_id);
    return found != positions_.end() ? std::optional(found->second) : std::nullopt;
}

} // namespace zeld
