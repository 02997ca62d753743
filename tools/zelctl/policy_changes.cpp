#include "tools/zelctl/policy_changes.hpp"

#include "tools/json/bad_input.hpp"
#include "tools/json/progress.hpp"
#include "tools/zelctl/records.hpp"

#include <fmt/core.h>

#include <algorithm>

namespace zelctl {

namespace {

// Policies that the head of a change request has room for.
constexpr std::size_t most_policies = (UINT16_MAX - sizeof(service::ChangeRequest)) / sizeof(service::Expected);

} // namespace

std::string encode_policy(uint32_t app, const zel_policy_t &policy)
{
    tools::Message message;
    message.header = {ZEL_API_POLICY_UPDATE, app, policy.id, service::op_code_set};
    message.graph = tools::Graph(ZEL_MAT_TYPE_POLICY, const_cast<zel_policy_t *>(&policy));
    std::string bytes = encode_message(message);
    message.graph.release(); // it stays the caller's
    return bytes;
}

ChangeSet::ChangeSet(Connection &connection, uint32_t app, const std::vector<const zel_policy_t *> &policies,
                     const Present &present, Details details)
    : app_(app)
{
    tools::Progress progress("comparing policies", policies.size());
    for (const zel_policy_t *const policy : policies) {
        const auto found = present.find({app, policy->id});
        add(connection, *policy, found != present.end() ? &found->second : nullptr, details);
        progress.reached(changes_.size());
    }
    if (expected_.size() > most_policies)
        throw tools::BadInput(
            fmt::format("{} policies change, and one request takes {}; use --each", expected_.size(), most_policies));
}

void ChangeSet::add(Connection &connection, const zel_policy_t &policy, const service::Summary *present,
                    Details details)
{
    std::vector<ChangeElement> elements;
    if (present == nullptr) {
        changes_.push_back(compare(nullptr, &policy, details));
        elements.push_back({service::element_message, encode_policy(app_, policy)});
    } else {
        const tools::Message message = fetch_policy(connection, app_, policy.id);
        const auto &before = message.graph.as<zel_policy_t>();
        changes_.push_back(compare(&before, &policy, details));
        if (changes_.back().kind != ChangeKind::unchanged)
            elements = plan(app_, before, policy);
    }
    if (elements.empty())
        return;
    expected_.push_back({present != nullptr ? present->revision : 0, policy.id, 0});
    for (ChangeElement &element : elements) {
        bytes_ += element.bytes.size();
        elements_.push_back(std::move(element));
    }
}

std::string change_request(uint32_t app, bool is_dry_run, const std::vector<service::Expected> &expected,
                           const std::vector<ChangeElement> &elements)
{
    const service::ChangeRequest head{app, is_dry_run ? uint32_t{service::change_flag_dry_run} : 0U,
                                      static_cast<uint32_t>(expected.size()), 0};
    std::string first(bytes_of(head));
    for (const service::Expected &one : expected)
        first += bytes_of(one);
    std::string array;
    add_element(array, service::element_change, first);
    for (const ChangeElement &element : elements)
        for (std::string_view rest(element.bytes); !rest.empty();) {
            const std::string_view part = rest.substr(0, UINT16_MAX);
            add_element(array, element.type, part);
            rest.remove_prefix(part.size());
        }
    return array;
}

Answer ChangeSet::send(Connection &connection, bool is_dry_run) const
{
    return connection.request(service::opcode_change, change_request(app_, is_dry_run, expected_, elements_),
                              is_dry_run ? Effect::reads : Effect::changes);
}

} // namespace zelctl
