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

// What a message that shows a policy carries besides: the response header, and
// the markers and count of a list.
constexpr std::size_t show_overhead = ZEL_RESP_HDR_SIZE + 64;

// Steps that classifying the packets of one request may take at worst, which is
// a few seconds: other clients wait for as long.
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
            Owned<zel_policy_t> policy = read_policy(message);
            check_policy(*policy);
            auto &place = policies_[key] = std::make_unique<Policy>(std::move(policy));
            total_size_ += place->size();
        } catch (const Refusal &refusal) {
            throw StoreError(
                fmt::format("policy {} of application {} is damaged: {}", key.id, key.app_type, refusal.what()));
        }
    });
}

Policy &Policies::get(const PolicyKey &key) const
{
    const auto place = policies_.find(key);
    if (place == policies_.end())
        throw Refusal(error_not_found, "application {} has no policy {}", key.app_type, key.id);
    return *place->second;
}

std::vector<Policy *> Policies::of_application(uint32_t app_type) const
{
    std::vector<Policy *> found;
    for (auto place = policies_.lower_bound({app_type, 0});
         place != policies_.end() && place->first.app_type == app_type; ++place)
        found.push_back(place->second.get());
    return found;
}

// On disk first, then here, where nothing can fail any more.
std::string Policies::apply(const Request &request)
{
    const GraphBudget budget(limits_.max_state);
    Staged staged;
    stage(staged, request);
    check_total(staged);
    std::string text = describe(staged.policies);
    if (store_ != nullptr)
        keep(staged);
    commit(std::move(staged.policies));
    return text;
}

// ---- What a request asks for

void Policies::stage(Staged &staged, const Request &request) const
{
    const zel_kob_header_t &header = request.header;
    const PolicyKey key{header.app_type, header.policy_id};
    if (header.api_type == ZEL_API_POLICY_DELETE) // whose op_code says nothing more
        return stage_removal(staged, key);
    check_op_code(header);
    switch (header.api_type) {
    case ZEL_API_POLICY_LIST_UPDATE:
        for (const zel_policy_t *const policy : members(*static_cast<const zel_policy_list_t *>(request.object.get())))
            stage_whole(staged, header, *policy);
        return;
    case ZEL_API_POLICY_UPDATE: {
        const auto &policy = *static_cast<const zel_policy_t *>(request.object.get());
        if (policy.id != header.policy_id)
            throw Refusal(error_malformed, "the header names policy {} and the message carries policy {}",
                          header.policy_id, policy.id);
        return stage_whole(staged, header, policy);
    }
    default: {
        Owned<zel_policy_t> copy = clone(get(key).graph());
        update_policy(*copy, header.api_type, header.op_code, request.object.get());
        stage_set(staged, key, std::move(copy));
        // Other than a policy that is set anew, one that changes in part goes on counting.
        staged.policies.at(key)->inherit_counters(get(key));
        return;
    }
    }
}

void Policies::stage_whole(Staged &staged, const zel_kob_header_t &header, const zel_policy_t &policy) const
{
    const PolicyKey key{header.app_type, policy.id};
    if (staged.policies.contains(key))
        throw Refusal(error_conflict, "the list has more than one policy {}", policy.id);
    if (header.op_code == service::op_code_remove)
        stage_removal(staged, key);
    else
        stage_set(staged, key, clone(policy));
}

void Policies::stage_set(Staged &staged, const PolicyKey &key, Owned<zel_policy_t> policy) const
{
    check_policy(*policy);
    Bytes message = write_policy(key.app_type, *policy);
    const std::size_t size = message.size();
    if (size + show_overhead > limits_.max_message)
        throw Refusal(error_limit, "policy {} would take {} bytes, and a message carries {}", key.id, size,
                      limits_.max_message - show_overhead);
    staged.policies.emplace(key, std::make_unique<Policy>(std::move(policy)));
    staged.messages.emplace(key, std::move(message));
}

void Policies::stage_removal(Staged &staged, const PolicyKey &key) const
{
    get(key);
    staged.policies.emplace(key, nullptr);
}

// ---- How what is staged takes effect

void Policies::check_total(const Staged &staged) const
{
    std::size_t total = total_size_;
    for (const auto &[key, policy] : staged.policies) {
        if (const auto old = policies_.find(key); old != policies_.end())
            total -= old->second->size();
        if (policy != nullptr)
            total += policy->size();
    }
    if (total > total_size_ && total > limits_.max_state)
        throw Refusal(error_limit, "all policies together would take {} bytes; {} are allowed", total,
                      limits_.max_state);
}

void Policies::keep(const Staged &staged) const
{
    std::vector<Store::Change> changes;
    for (const auto &[key, policy] : staged.policies)
        changes.push_back({key, policy != nullptr ? &staged.messages.at(key) : nullptr});
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
        const Words words = words_of(packet);
        bool is_matched = false;
        for (const auto &[key, policy] : policies_) {
            if (const auto position = policy->classifier().classify(packet, words)) {
                policy->count(*position, packet.bytes);
                is_matched = true;
            }
        }
        num_matched += is_matched ? 1 : 0;
    }
    return num_matched;
}

} // namespace zeld
