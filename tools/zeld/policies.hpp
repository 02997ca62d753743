// The current policies of all applications, and what requests do to them.
#pragma once

#include "tools/zeld/policy.hpp"
#include "tools/zeld/store.hpp"

#include <map>

namespace zeld {

class Policies {
public:
    struct Limits {
        std::size_t max_message; // of a policy as a message, so that it can be shown
        std::size_t max_state;   // memory for all policies, and for the work of one request
    };
    using Map = std::map<PolicyKey, std::unique_ptr<Policy>>;

    // Takes over what the store has; without a store, nothing outlives this.
    // Throws StoreError when the store has something else than policies.
    Policies(std::unique_ptr<Store> store, const Limits &limits);

    // Makes the change that a request asks for and returns what was done, in words.
    // Throws Refusal, and then nothing has changed.
    std::string apply(const Request &request);

    // Classifies packets in every policy, each on its own; returns how many matched somewhere.
    std::size_t count(const std::vector<service::PacketHeader> &packets);

    // Throws Refusal when there is none.
    Policy &get(const PolicyKey &key) const;
    // Those of one application, by ascending id.
    std::vector<Policy *> of_application(uint32_t app_type) const;
    const Map &all() const { return policies_; }

private:
    // Changes that wait to be made: new policies by key, null for those that go.
    struct Staged {
        Map policies;
        std::map<PolicyKey, Bytes> messages; // of the new ones
    };

    void stage(Staged &staged, const Request &request) const;
    void stage_whole(Staged &staged, const zel_kob_header_t &header, const zel_policy_t &policy) const;
    void stage_set(Staged &staged, const PolicyKey &key, Owned<zel_policy_t> policy) const;
    void stage_removal(Staged &staged, const PolicyKey &key) const;
    void check_total(const Staged &staged) const;
    void keep(const Staged &staged) const;
    void commit(Map staged) noexcept;

    std::unique_ptr<Store> store_;
    Limits limits_;
    Map policies_;
    std::size_t total_size_ = 0;
};

} // namespace zeld
