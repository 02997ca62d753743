// The current policies of all applications, and the changes that requests make.
//
// Changes are made in memory at once and become durable together: apply() any number
// of requests, then commit(). Whoever looks at the policies in between sees what may
// still be undone.
#pragma once

#include "tools/records/operator_protocol.hpp"
#include "tools/zeld/store.hpp"

#include <map>

namespace zeld {

// The fields of a policy itself, and all its pairs in their new order; or none.
struct Frame {
    service::PolicyFrame fields{};
    std::vector<uint16_t> order{};
    uint64_t checksum = 0;
};

// Changes that are made in order, all or none.
struct Batch {
    struct Change {
        Request request{}; // of the library, unless there is a frame
        std::optional<Frame> frame{};
    };
    uint32_t app_type = 0;
    bool is_dry_run = false;
    std::vector<service::Expected> expected{};
    std::vector<Change> changes{};
};

class Policies {
public:
    struct Limits {
        std::size_t max_policy; // bytes of one policy as a message, so that an answer can carry it
        std::size_t max_state;  // memory for all policies, and again for the work on one request
    };
    using Map = std::map<PolicyKey, std::shared_ptr<const Policy>>;

    // Without a store, policies end with this object.
    Policies(std::unique_ptr<Store> store, const Limits &limits) : store_(std::move(store)), limits_(limits) {}

    // Loads the policies of the store. Calls progress after each row, which may throw to
    // stop. Throws StoreError when the store holds anything but valid policies; with
    // is_salvage, removes those that are not.
    void load(const std::function<bool()> &keeps_going, bool is_salvage);

    // Makes the change that a request asks for. Returns a text that says what changed.
    // Throws Refusal, and then nothing has changed.
    std::string apply(const Request &request);
    // The same for several changes. A dry run changes nothing in any case.
    std::string apply(const Batch &batch);

    // Makes durable what was applied since the last call. When it throws StoreError, all
    // of that has been undone.
    void commit();

    // Throws Refusal when the policy does not exist.
    std::shared_ptr<const Policy> get(const PolicyKey &key) const;
    // One policy, or all of the application for service::show_all. Throws Refusal.
    std::vector<std::shared_ptr<const Policy>> named(uint32_t app_type, uint32_t policy_id) const;
    // The policies of an application, in ascending id order.
    std::vector<std::shared_ptr<const Policy>> of_application(uint32_t app_type) const;
    const Map &all() const { return policies_; }
    std::size_t held() const { return held_; } // bytes of memory

private:
    struct Staged {
        Map policies; // new versions by key; null for each policy to remove
        std::vector<Store::Change> changes;
    };
    struct Undo {
        PolicyKey key;
        Map::node_type old; // empty: there was no such policy
    };

    void load_row(const PolicyKey &key, uint32_t number, Bytes message);
    void stage(Staged &staged, const Request &request, const Budget &budget) const;
    void stage_whole(Staged &staged, const Request &request, const zel_policy_t &given,
                     std::span<const unsigned char> message) const;
    void stage_part(Staged &staged, const Request &request, const Budget &budget) const;
    void stage_version(Staged &staged, const PolicyKey &key, std::shared_ptr<Policy> policy, Bytes row, uint64_t work,
                       bool frees) const;
    void stage_removal(Staged &staged, const PolicyKey &key) const;
    Rows rows_of(const PolicyKey &key) const;
    void stage_frame(Staged &staged, uint32_t app_type, const Frame &frame) const;
    Staged stage(const Batch &batch, const Batch::Change &change, const Budget &budget) const;
    void check_expected(const Batch &batch) const;
    void check_total(const Staged &staged) const;
    void adopt(Staged staged);
    void undo(std::size_t num_kept = 0) noexcept;

    std::unique_ptr<Store> store_;
    Limits limits_;
    Map policies_;
    std::size_t held_ = 0;
    std::vector<Undo> undo_; // what was applied since the last commit, in order
    std::vector<Store::Change> changes_;
};

} // namespace zeld
