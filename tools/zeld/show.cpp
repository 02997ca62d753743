#include "tools/zeld/show.hpp"

#include "tools/zeld/values.hpp"

namespace zeld {

using service::error_limit;
using service::error_malformed;

Show::Show(const Policies &policies, const void *array, std::size_t max_body)
    : Job(State::reading), policies_(policies), max_body_(max_body)
{
    Values<service::ShowRequest> requests(array, service::element_show);
    if (requests.size() != 1)
        throw Refusal(error_malformed, "{} elements where one show request belongs", requests.size());
    requests.next(request_);
}

void Show::begin()
{
    shown_ = policies_.named(request_.app_type, request_.policy_id);
    std::size_t size = 0;
    for (const auto &policy : shown_)
        size += policy->encoded_size();
    if (size > max_body_)
        throw Refusal(
            error_limit,
            "the policies take {} bytes, and an answer has room for {}; show them one by one, or raise --max-message",
            size, max_body_);
    body_.reserve(size);
    has_begun_ = true;
}

void Show::run(const Slice &slice)
{
    if (!has_begun_)
        begin();
    for (; next_ < shown_.size(); ++next_) {
        if (slice.is_over())
            return;
        const Policy &policy = *shown_[next_];
        const Bytes encoded = policy.message != nullptr ? Bytes{} : write_policy(request_.app_type, policy);
        const Bytes &message = policy.message != nullptr ? *policy.message : encoded;
        body_.insert(body_.end(), message.begin(), message.end());
    }
    Answer given = success(fmt::format("{} policies", shown_.size()));
    given.body = std::move(body_);
    finish(std::move(given));
}

} // namespace zeld
