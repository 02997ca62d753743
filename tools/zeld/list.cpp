#include "tools/zeld/list.hpp"

#include "tools/zeld/records.hpp"
#include "tools/zeld/values.hpp"

namespace zeld {

namespace {

service::Summary summary_of(const PolicyKey &key, const Policy &policy)
{
    service::Summary summary{};
    summary.revision = policy.revision;
    summary.op_mode = policy.record().op_mode;
    summary.app_type = policy.record().app_type;
    summary.bytes = static_cast<uint32_t>(policy.encoded_size());
    summary.policy_id = policy.id();
    summary.version = policy.record().version;
    summary.num_pairs = static_cast<uint16_t>(policy.num_pairs());
    summary.num_interfaces = static_cast<uint16_t>(policy.interfaces().size());
    summary.application = key.app_type;
    return summary;
}

} // namespace

List::List(const Policies &policies, const void *array, std::size_t max_body)
    : Job(State::reading), policies_(policies), max_body_(max_body)
{
    Values<service::ListRequest> requests(array, service::element_list);
    if (requests.size() != 1)
        throw Refusal(service::error_malformed, "{} elements where one list request belongs", requests.size());
    requests.next(request_);
    if ((request_.flags & ~service::list_flag_all) != 0)
        throw Refusal(service::error_unsupported, "flags {:#x} of a list request are not known", request_.flags);
}

// One round: an entry takes some 100 ns, and an answer has room for some 400,000.
void List::run(const Slice &)
{
    Records page(max_body_);
    const Policies::Map &all = policies_.all();
    uint32_t number = 0;
    const bool has_all = request_.flags == service::list_flag_all;
    const PolicyKey first{request_.app_type, static_cast<uint16_t>(std::min<uint32_t>(request_.first_id, UINT16_MAX))};
    for (auto entry = all.lower_bound(first); entry != all.end(); ++entry) {
        const auto &[key, policy] = *entry;
        const bool is_full = request_.most != 0 && number == request_.most;
        if (is_full || (key.app_type != request_.app_type && !has_all) ||
            !page.add(service::element_summary, summary_of(key, *policy)))
            break;
        ++number;
    }
    Answer given = success(fmt::format("{} policies", number), number);
    given.body = page.take();
    finish(std::move(given));
}

} // namespace zeld
