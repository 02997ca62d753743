#include "tools/zeld/graph.hpp"

namespace zeld {

GraphBudget *GraphBudget::current_ = nullptr;

void GraphBudget::charge(std::size_t bytes)
{
    if (current_ == nullptr)
        return;
    current_->taken_ += bytes;
    if (current_->taken_ > current_->limit_)
        throw Refusal(service::error_limit, "the request would take more than {} bytes of memory", current_->limit_);
}

std::size_t graph_size(const zel_policy_t &policy)
{
    return zel::wire::heap_size(zel::wire::policy, &policy, block_overhead);
}

} // namespace zeld
