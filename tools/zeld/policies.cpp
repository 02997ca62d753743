#include "tools/zeld/policies.hpp"

#include "tools/zeld/update.hpp"

#include <set>

namespace zeld {

namespace {

using service::error_conflict;
using service::error_limit;
using service::error_malformed;
using service::error_not_found;
using service::error_unsupported;

// Rows of updates may take as much work to read as the policy has bytes, or as this.
constexpr std::size_t least_work = 4096;

// What a small change of many takes, and how many bytes are encoded in a step.
constexpr uint64_t steps_of_change = 100;
constexpr std::size_t bytes_of_step = 8;

std::string describe(const Policies::Map &changes)
{
    if (changes.size() != 1)
        return fmt::format("{} policies changed", changes.size());
    const auto &[key, policy] = *changes.begin();
    if (policy == nullptr)
        return fmt::format("policy {} removed", key.id);
    return fmt::format("policy {} has {} pairs", key.id, policy->num_pairs());
}

void check_op_code(const zel_kob_header_t &header)
{
    if (header.op_code != service::op_code_set && header.op_code != service::op_code_remove)
        throw Refusal(error_unsupported, "op_code {} is not known for request kind {}", header.op_code,
                      header.api_type);
}

} // namespace

// ---- Loading

void Policies::load(const std::function<bool()> &keeps_going, bool is_salvage)
{
    if (store_ == nullptr)
        return;
    const auto take = [&](const PolicyKey &key, uint32_t number, Bytes message) {
        if (!keeps_going())
            throw StoreError("stopped");
        load_row(key, number, std::move(message));
    };
    for (const PolicyKey &removed : store_->load(take, keeps_going, is_salvage))
        policies_.erase(removed);
    for (const auto &[key, policy] : policies_)
        held_ += policy->held();
}

void Policies::load_row(const PolicyKey &key, uint32_t number, Bytes message)
{
    const Request request = read_stored(key, message);
    const auto present = policies_.find(key);
    const bool is_whole = request.header.api_type == ZEL_API_POLICY_UPDATE;
    const uint32_t expected = present != policies_.end() ? present->second->rows.count : 0;
    if (number != expected || is_whole != (number == 0))
        throw Refusal(error_malformed, "row {} does not follow row {}", number, expected);
    const Budget budget(SIZE_MAX);
    auto policy = is_whole ? std::make_shared<Policy>(*static_cast<const zel_policy_t *>(request.object.get()))
                           : std::make_shared<Policy>(*present->second);
    if (is_whole && (policy->id() != key.id || request.header.op_code != service::op_code_set))
        throw Refusal(error_malformed, "the message creates something else");
    policy->rows.count += 1;
    policy->rows.checksum += row_checksum(key, number, message);
    if (is_whole)
        policy->message = std::make_shared<const Bytes>(std::move(message));
    else {
        policy->rows.work += message.size() + budget.steps();
        update_policy(*policy, request.header.api_type, request.header.op_code, request.object.get());
    }
    policy->revise(request.checksum);
    policies_[key] = std::move(policy);
}

// ---- Reading

std::shared_ptr<const Policy> Policies::get(const PolicyKey &key) const
{
    const auto found = policies_.find(key);
    if (found == policies_.end())
        throw Refusal(error_not_found, "application {} has no policy {}", key.app_type, key.id);
    return found->second;
}

std::vector<std::shared_ptr<const Policy>> Policies::named(uint32_t app_type, uint32_t policy_id) const
{
    if (policy_id == service::show_all)
        return of_application(app_type);
    if (policy_id > UINT16_MAX)
        throw Refusal(error_malformed, "{} is not a policy id", policy_id);
    return {get({app_type, static_cast<uint16_t>(policy_id)})};
}

std::vector<std::shared_ptr<const Policy>> Policies::of_application(uint32_t app_type) const
{
    std::vector<std::shared_ptr<const Policy>> found;
    for (auto entry = policies_.lower_bound({app_type, 0});
         entry != policies_.end() && entry->first.app_type == app_type; ++entry)
        found.push_back(entry->second);
    return found;
}

// ---- Changing

// All that can fail comes first: the change is staged, then adopted.
std::string Policies::apply(const Request &request)
{
    const Budget budget(limits_.max_state);
    Staged staged;
    stage(staged, request, budget);
    check_total(staged);
    std::string text = describe(staged.policies);
    adopt(std::move(staged));
    return text;
}

// Each change sees those before it, so they are adopted one by one. What commit() has
// not made durable can be undone.
std::string Policies::apply(const Batch &batch)
{
    const Budget budget(limits_.max_state);
    const std::size_t num_undo = undo_.size();
    const std::size_t num_changes = changes_.size();
    const auto forget = [&] {
        undo(num_undo);
        changes_.resize(num_changes);
    };
    check_expected(batch);
    std::set<PolicyKey> changed;
    try {
        for (const Batch::Change &change : batch.changes) {
            Budget::step(steps_of_change);
            Staged staged = stage(batch, change, budget);
            check_total(staged);
            for (const auto &[key, policy] : staged.policies)
                changed.insert(key);
            adopt(std::move(staged));
        }
    } catch (...) {
        forget();
        throw;
    }
    if (batch.is_dry_run)
        forget();
    return fmt::format("{} policies changed", changed.size());
}

void Policies::check_expected(const Batch &batch) const
{
    for (const service::Expected &expected : batch.expected) {
        if (expected.policy_id > UINT16_MAX)
            throw Refusal(error_malformed, "{} is not a policy id", expected.policy_id);
        const auto found = policies_.find({batch.app_type, static_cast<uint16_t>(expected.policy_id)});
        if ((found == policies_.end() ? 0 : found->second->revision) != expected.revision)
            throw Refusal(error_conflict, "policy {} has been changed since it was read", expected.policy_id);
    }
}

Policies::Staged Policies::stage(const Batch &batch, const Batch::Change &change, const Budget &budget) const
{
    Staged staged;
    if (change.frame)
        stage_frame(staged, batch.app_type, *change.frame);
    else
        stage(staged, change.request, budget);
    return staged;
}

void Policies::stage_frame(Staged &staged, uint32_t app_type, const Frame &frame) const
{
    const PolicyKey key{app_type, frame.fields.policy_id};
    auto policy = std::make_shared<Policy>(*get(key));
    if (store_ != nullptr) // which gets the whole policy
        Budget::step(policy->encoded_size() / bytes_of_step);
    policy->set_frame(frame.fields, frame.order);
    policy->revise(frame.checksum);
    stage_version(staged, key, std::move(policy), {}, 0, false);
}

void Policies::stage(Staged &staged, const Request &request, const Budget &budget) const
{
    const zel_kob_header_t &header = request.header;
    if (header.api_type == ZEL_API_POLICY_DELETE) // the op_code has no meaning here
        return stage_removal(staged, {header.app_type, header.policy_id});
    check_op_code(header);
    switch (header.api_type) {
    case ZEL_API_POLICY_LIST_UPDATE:
        for (const zel_policy_t *const policy : members(*static_cast<const zel_policy_list_t *>(request.object.get())))
            stage_whole(staged, request, *policy, {});
        return;
    case ZEL_API_POLICY_UPDATE: {
        const auto &policy = *static_cast<const zel_policy_t *>(request.object.get());
        if (policy.id != header.policy_id)
            throw Refusal(error_malformed, "the header names policy {} and the message carries policy {}",
                          header.policy_id, policy.id);
        return stage_whole(staged, request, policy, request.message);
    }
    default:
        return stage_part(staged, request, budget);
    }
}

void Policies::stage_whole(Staged &staged, const Request &request, const zel_policy_t &given,
                           std::span<const unsigned char> message) const
{
    const PolicyKey key{request.header.app_type, given.id};
    if (staged.policies.contains(key))
        throw Refusal(error_conflict, "the list has more than one policy {}", given.id);
    if (request.header.op_code == service::op_code_remove)
        return stage_removal(staged, key);
    auto policy = std::make_shared<Policy>(given);
    policy->revise(request.checksum);
    if (!message.empty())
        policy->message = std::make_shared<const Bytes>(message.begin(), message.end());
    stage_version(staged, key, std::move(policy), {}, 0, false);
}

void Policies::stage_part(Staged &staged, const Request &request, const Budget &budget) const
{
    const zel_kob_header_t &header = request.header;
    const PolicyKey key{header.app_type, header.policy_id};
    auto policy = std::make_shared<Policy>(*get(key));
    update_policy(*policy, header.api_type, header.op_code, request.object.get());
    policy->revise(request.checksum);
    stage_version(staged, key, std::move(policy), Bytes(request.message.begin(), request.message.end()),
                  request.message.size() + budget.steps(), header.op_code == service::op_code_remove);
}

// An update becomes a row behind those that the policy has. When these take more work
// to read than the policy, the whole policy becomes one row again.
void Policies::stage_version(Staged &staged, const PolicyKey &key, std::shared_ptr<Policy> policy, Bytes row,
                             uint64_t work, bool frees) const
{
    const std::size_t size = policy->encoded_size();
    if (size > limits_.max_policy)
        throw Refusal(error_limit, "policy {} would take {} bytes, and an answer has room for {}: raise --max-message",
                      key.id, size, limits_.max_policy);
    if (store_ != nullptr) {
        Rows &rows = policy->rows;
        const Rows before = rows_of(key);
        const bool is_whole = row.empty() || rows.work + work > std::max(size, least_work);
        Store::Change change{key, is_whole ? before : Rows{}, nullptr, is_whole ? 0 : rows.count, frees};
        if (!is_whole)
            change.content = std::make_shared<const Bytes>(std::move(row));
        else if (policy->message != nullptr)
            change.content = policy->message;
        else
            change.content = std::make_shared<const Bytes>(write_policy(key.app_type, *policy));
        const uint64_t checksum = row_checksum(key, change.number, *change.content);
        rows = is_whole ? Rows{1, checksum, 0} : Rows{rows.count + 1, rows.checksum + checksum, rows.work + work};
        staged.changes.push_back(std::move(change));
    }
    staged.policies.emplace(key, std::move(policy));
}

void Policies::stage_removal(Staged &staged, const PolicyKey &key) const
{
    get(key);
    staged.changes.push_back({key, rows_of(key), nullptr, 0, true});
    staged.policies.emplace(key, nullptr);
}

Rows Policies::rows_of(const PolicyKey &key) const
{
    const auto found = policies_.find(key);
    return found != policies_.end() ? found->second->rows : Rows{};
}

void Policies::check_total(const Staged &staged) const
{
    std::size_t total = held_;
    for (const auto &[key, policy] : staged.policies) {
        if (const auto old = policies_.find(key); old != policies_.end())
            total -= old->second->held();
        if (policy != nullptr)
            total += policy->held();
    }
    if (total > held_ && total > limits_.max_state)
        throw Refusal(error_limit, "all policies together would take {} bytes; {} are allowed: raise --max-state",
                      total, limits_.max_state);
}

// ---- From staged to current, and back

void Policies::adopt(Staged staged)
{
    undo_.reserve(undo_.size() + staged.policies.size());
    changes_.reserve(changes_.size() + staged.changes.size());
    // From here on nothing fails.
    std::move(staged.changes.begin(), staged.changes.end(), std::back_inserter(changes_));
    while (!staged.policies.empty()) {
        auto node = staged.policies.extract(staged.policies.begin());
        undo_.push_back({node.key(), policies_.extract(node.key())});
        if (!undo_.back().old.empty())
            held_ -= undo_.back().old.mapped()->held();
        if (node.mapped() == nullptr)
            continue;
        held_ += node.mapped()->held();
        policies_.insert(std::move(node));
    }
}

void Policies::undo(std::size_t num_kept) noexcept
{
    for (; undo_.size() > num_kept; undo_.pop_back()) {
        auto &[key, old] = undo_.back();
        if (const auto present = policies_.find(key); present != policies_.end()) {
            held_ -= present->second->held();
            policies_.erase(present);
        }
        if (old.empty())
            continue;
        held_ += old.mapped()->held();
        policies_.insert(std::move(old));
    }
}

void Policies::commit()
{
    if (undo_.empty())
        return;
    try {
        if (store_ != nullptr)
            store_->apply(changes_);
        undo_.clear();
    } catch (...) {
        undo();
        changes_.clear();
        throw;
    }
    changes_.clear();
}

} // namespace zeld
