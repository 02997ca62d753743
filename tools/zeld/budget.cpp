#include "tools/zeld/budget.hpp"

namespace zeld {

uint64_t Budget::request_ = 0;
Budget *Budget::current_ = nullptr;

void Budget::charge(std::size_t bytes)
{
    if (current_ == nullptr)
        return;
    current_->taken_ += bytes;
    if (current_->taken_ > current_->limit_)
        throw Refusal(service::error_limit, "the request would take more than {} bytes of memory: raise --max-state",
                      current_->limit_);
}

void Budget::step(uint64_t steps)
{
    if (current_ == nullptr)
        return;
    current_->steps_ += steps;
    if (current_->steps_ > max_steps)
        throw Refusal(service::error_limit, "the request would take more than {} steps", max_steps);
}

} // namespace zeld
