// The current policies of all applications, and the changes that requests make.
#pragma once

#include "tools/zeld/policy.hpp"
#include "tools/zeld/store.hpp"

#include <map>

namespace zeld {

class Policies {
public:
    struct Limits {
        std::size_t max_policy; // bytes of one policy as a message, so that an answer can carry it
        std::size_t max_state;  // memory for all policies, and again for the work on one request
    };
    using Map = std::map<PolicyKey, std::unique_ptr<Policy>>;

    // Loads the policies of the store. Without a store, policies end with this object.
    // Throws StoreError when the store holds anything but valid policies.
    Policies(std::unique_ptr<Store> store, const Limits &limits);

    // Makes the change that a request asks for. Returns a text that says what changed.
    // Throws Refusal, and then nothing has changed.
    std::string apply(const Request &request);

    // Classifies packets in each policy and counts them there. Returns the number of
    // packets that matched in at least one policy.
    std::size_t count(const std::vector<service::PacketHeader> &packets);

    // Throws Refusal when the policy does not exist.
    Policy &get(const PolicyKey &key) const;
    // The policies of an application, in ascending id order.
    std::vector<Policy *> of_application(uint32_t app_type) const;
    const Map &all() const { return policies_; }

private:
    void stage(Map &staged, const Request &request) const;
    void stage_whole(Map &staged, const zel_kob_header_t &header, const zel_policy_t &policy, Bytes message) const;
    void stage_set(Map &staged, const PolicyKey &key, Owned<zel_policy_t> policy, Bytes message) const;
    void stage_removal(Map &staged, const PolicyKey &key) const;
    void check_total(const Map &staged) const;
    void store(const Map &staged) const;
    void commit(Map staged) noexcept;

    std::unique_ptr<Store> store_;
    Limits limits_;
    Map policies_;
    std::size_t total_size_ = 0;
};

} // namespace zeld
