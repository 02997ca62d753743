#include "tools/zeld/list.hpp"

#include "tools/zeld/records.hpp"
#include "tools/zeld/values.hpp"

namespace zeld {

namespace {

service::Summary summary_of(const Policy &policy)
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
}

// One round: an entry takes some 100 ns, and an application has at most 65,535 policies.
void List::run(const Slice &)
{
    Records page(max_body_);
    const Policies::Map &all = policies_.all();
    uint32_t number = 0;
    if (request_.first_id <= UINT16_MAX)
        for (auto entry = all.lower_bound({request_.app_type, static_cast<uint16_t>(request_.first_id)});
             entry != all.end() && entry->first.app_type == request_.app_type; ++entry) {
            if (number == request_.most && number != 0)
                break;
            if (!page.add(service::element_summary, summary_of(*entry->second)))
                break;
            ++number;
        }
    Answer given = success(fmt::format("{} policies", number), number);
    given.body = page.take();
    finish(std::move(given));
}

} // namespace zeld
