// A change request: what makes the policies of the service those that are given.
#pragma once

#include "tools/zelctl/policy_diff.hpp"
#include "tools/zelctl/service_policies.hpp"

namespace zelctl {

// The message that creates a policy.
std::string encode_policy(uint32_t app, const zel_policy_t &policy);

// The payload of a change request.
std::string change_request(uint32_t app, bool is_dry_run, const std::vector<service::Expected> &expected,
                           const std::vector<ChangeElement> &elements);

class ChangeSet {
public:
    // Reads the service's versions of the policies, as far as they are present, and
    // compares.  Throws Refused.
    ChangeSet(Connection &connection, uint32_t app, const std::vector<const zel_policy_t *> &policies,
              const Present &present, Details details);

    const std::vector<PolicyChange> &changes() const { return changes_; }
    // Of all that is to be sent; 0 when nothing differs.
    std::size_t bytes() const { return bytes_; }

    // All changes are made, or none.  The service refuses them when one of the policies has
    // been changed since the comparison.  A dry run changes nothing.
    Answer send(Connection &connection, bool is_dry_run) const;

private:
    void add(Connection &connection, const zel_policy_t &policy, const service::Summary *present, Details details);

    uint32_t app_;
    std::vector<PolicyChange> changes_{};
    std::vector<service::Expected> expected_{};
    std::vector<ChangeElement> elements_{};
    std::size_t bytes_ = 0;
};

} // namespace zelctl
