#include "tools/zeld/graph.hpp"

namespace zeld {

GraphBudget *GraphBudget::current_ = nullptr;

void GraphBudget::take(std::size_t bytes)
{
    if (current_ == nullptr)
        return;
    current_->taken_ += bytes;
    if (current_->taken_ > current_->limit_)
        throw Refusal(service::error_limit, "the request would take more than {} bytes of memory", current_->limit_);
}

void free_graph(uint32_t mat_type, void *root) noexcept
{
    if (root == nullptr)
        return;
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, 0, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    free_contained_mat_obj_mem(&handle, 0, mat_type, root);
    std::free(root);
}

} // namespace zeld
