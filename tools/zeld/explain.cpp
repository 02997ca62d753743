#include "tools/zeld/explain.hpp"

#include "tools/zeld/values.hpp"

namespace zeld {

namespace {

// Patterns that one request may compare, some 10 ns each.
constexpr std::size_t max_patterns = std::size_t{1} << 26;

} // namespace

Explain::Explain(const Policies &policies, const void *array, std::size_t max_body)
    : Job(State::reading), policies_(policies), reasons_(max_body)
{
    Values<service::ExplainRequest> requests(array, service::element_explain);
    if (requests.size() != 1)
        throw Refusal(service::error_malformed, "{} elements where one explain request belongs", requests.size());
    requests.next(request_);
}

void Explain::begin()
{
    explained_ = policies_.named(request_.app_type, request_.policy_id);
    has_begun_ = true;
}

void Explain::run(const Slice &slice)
{
    if (!has_begun_)
        begin();
    for (; next_ < explained_.size(); ++next_)
        if (!explain(slice))
            return;
    Answer given = success(fmt::format("{} policies, {} reasons", explained_.size(), num_reasons_));
    given.body = reasons_.take();
    finish(std::move(given));
}

bool Explain::explain(const Slice &slice)
{
    if (!explanation_) {
        const Policy &policy = *explained_[next_];
        cost_ += classify::Explanation::cost(policy.classifier());
        if (cost_ > max_patterns)
            throw Refusal(service::error_limit, "the explanation would take more than {} steps; ask about one policy",
                          max_patterns);
        graph_.emplace(policy);
        explanation_.emplace(graph_->policy(), policy.classifier(), request_.packet);
    }
    while (!explanation_->is_done()) {
        if (slice.is_over())
            return false;
        if (!reasons_.add(service::element_reason, explanation_->next()))
            throw Refusal(
                service::error_limit,
                "an answer has no room for more than {} reasons; ask about one policy, or raise --max-message",
                num_reasons_);
        ++num_reasons_;
    }
    explanation_.reset();
    return true;
}

} // namespace zeld
