#include "tools/zeld/policies.hpp"

#include "tools/zeld/update.hpp"

#include <numeric>

namespace zeld {

namespace {

using service::error_conflict;
using service::error_limit;
using service::error_malformed;
using service::error_not_found;
using service::error_unsupported;

// The largest number of steps for the packets of one request, in the worst case.
// They take a few seconds, and all other clients wait for them.
constexpr std::size_t max_work = std::size_t{1} << 31;

std::string describe(const Policies::Map &changes)
{
    if (changes.size() != 1)
        return fmt::format("{} policies changed", changes.size());
    const auto &[key, policy] = *changes.begin();
    if (policy == nullptr)
        return fmt::format("policy {} removed", key.id);
    return fmt::format("policy {} has {} pairs", key.id, policy->graph().match_action_pair_group.num_pair);
}

void check_op_code(const zel_kob_header_t &header)
{
    if (header.op_code != service::op_code_set && header.op_code != service::op_code_remove)
        throw Refusal(error_unsupported, "op_code {} is not known for request kind {}", header.op_code,
                      header.api_type);
}

} // namespace

Policies::Policies(std::unique_ptr<Store> store, const Limits &limits) : store_(std::move(store)), limits_(limits)
{
    if (store_ == nullptr)
        return;
    store_->load([&](const PolicyKey &key, const Bytes &message) {
        try {
            Owned<zel_policy_t> graph = read_policy(key, message);
            check_policy(*graph);
            auto &policy = policies_[key] = std::make_unique<Policy>(std::move(graph), message);
            total_size_ += policy->size();
        } catch (const Refusal &refusal) {
            throw StoreError(
                fmt::format("policy {} of application {} is damaged: {}", key.id, key.app_type, refusal.what()));
        }
    });
}

Policy &Policies::get(const PolicyKey &key) const
{
    const auto found = policies_.find(key);
    if (found == policies_.end())
        throw Refusal(error_not_found, "application {} has no policy {}", key.app_type, key.id);
    return *found->second;
}

std::vector<Policy *> Policies::of_application(uint32_t app_type) const
{
    std::vector<Policy *> found;
    for (auto entry = policies_.lower_bound({app_type, 0});
         entry != policies_.end() && entry->first.app_type == app_type; ++entry)
        found.push_back(entry->second.get());
    return found;
}

// All that can fail comes first: the change is staged, then stored, then committed.
// Staged are the new policies by key, and null for each policy to remove.
std::string Policies::apply(const Request &request)
{
    const GraphBudget budget(limits_.max_state);
    Map staged;
    stage(staged, request);
    check_total(staged);
    std::string text = describe(staged);
    if (store_ != nullptr)
        store(staged);
    commit(std::move(staged));
    return text;
}

// ---- Staging a request

void Policies::stage(Map &staged, const Request &request) const
{
    const zel_kob_header_t &header = request.header;
    const PolicyKey key{header.app_type, header.policy_id};
    if (header.api_type == ZEL_API_POLICY_DELETE) // the op_code has no meaning here
        return stage_removal(staged, key);
    check_op_code(header);
    switch (header.api_type) {
    case ZEL_API_POLICY_LIST_UPDATE:
        for (const zel_policy_t *const policy : members(*static_cast<const zel_policy_list_t *>(request.object.get())))
            stage_whole(staged, header, *policy, {});
        return;
    case ZEL_API_POLICY_UPDATE: {
        const auto &policy = *static_cast<const zel_policy_t *>(request.object.get());
        if (policy.id != header.policy_id)
            throw Refusal(error_malformed, "the header names policy {} and the message carries policy {}",
                          header.policy_id, policy.id);
        return stage_whole(staged, header, policy, {request.policy_message.begin(), request.policy_message.end()});
    }
    default: {
        Owned<zel_policy_t> copy = clone(get(key).graph());
        update_policy(*copy, header.api_type, header.op_code, request.object.get());
        stage_set(staged, key, std::move(copy), {});
        // A policy that is set as a whole starts at zero; one that changes in part does not.
        staged.at(key)->inherit_counters(get(key));
        return;
    }
    }
}

void Policies::stage_whole(Map &staged, const zel_kob_header_t &header, const zel_policy_t &policy, Bytes message) const
{
    const PolicyKey key{header.app_type, policy.id};
    if (staged.contains(key))
        throw Refusal(error_conflict, "the list has more than one policy {}", policy.id);
    if (header.op_code == service::op_code_remove)
        stage_removal(staged, key);
    else
        stage_set(staged, key, clone(policy), std::move(message));
}

// An empty message stands for a policy that still has to be encoded.
void Policies::stage_set(Map &staged, const PolicyKey &key, Owned<zel_policy_t> policy, Bytes message) const
{
    check_policy(*policy);
    if (message.empty())
        message = write_policy(key.app_type, *policy);
    if (message.size() > limits_.max_policy)
        throw Refusal(error_limit, "policy {} would take {} bytes, and an answer has room for {}", key.id,
                      message.size(), limits_.max_policy);
    staged.emplace(key, std::make_unique<Policy>(std::move(policy), std::move(message)));
}

void Policies::stage_removal(Map &staged, const PolicyKey &key) const
{
    get(key);
    staged.emplace(key, nullptr);
}

// ---- From staged to current

void Policies::check_total(const Map &staged) const
{
    std::size_t total = total_size_;
    for (const auto &[key, policy] : staged) {
        if (const auto old = policies_.find(key); old != policies_.end())
            total -= old->second->size();
        if (policy != nullptr)
            total += policy->size();
    }
    if (total > total_size_ && total > limits_.max_state)
        throw Refusal(error_limit, "all policies together would take {} bytes; {} are allowed", total,
                      limits_.max_state);
}

void Policies::store(const Map &staged) const
{
    std::vector<Store::Change> changes;
    for (const auto &[key, policy] : staged)
        changes.push_back({key, policy != nullptr ? &policy->message() : nullptr});
    try {
        store_->apply(changes);
    } catch (const StoreError &error) {
        throw Refusal(service::error_storage, "not kept, and not changed: {}", error.what());
    }
}

void Policies::commit(Map staged) noexcept
{
    while (!staged.empty()) {
        auto node = staged.extract(staged.begin());
        if (const auto old = policies_.find(node.key()); old != policies_.end()) {
            total_size_ -= old->second->size();
            policies_.erase(old);
        }
        if (node.mapped() == nullptr)
            continue;
        total_size_ += node.mapped()->size();
        policies_.insert(std::move(node));
    }
}

// ---- Traffic

std::size_t Policies::count(const std::vector<service::PacketHeader> &packets)
{
    const std::size_t cost =
        std::accumulate(policies_.begin(), policies_.end(), std::size_t{1},
                        [](std::size_t sum, const auto &entry) { return sum + 1 + entry.second->classifier().cost(); });
    if (packets.size() > max_work / cost)
        throw Refusal(error_limit, "{} packets are too many at once for the policies there are; send up to {}",
                      packets.size(), max_work / cost);
    std::size_t num_matched = 0;
    for (const service::PacketHeader &packet : packets) {
        const PackedHeader fields = pack(packet);
        bool is_matched = false;
        for (const auto &[key, policy] : policies_) {
            if (const auto position = policy->classifier().classify(packet, fields)) {
                policy->count(*position, packet.bytes);
                is_matched = true;
            }
        }
        num_matched += is_matched ? 1 : 0;
    }
    return num_matched;
}

} // namespace zeld
