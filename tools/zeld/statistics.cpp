#include "tools/zeld/statistics.hpp"

#include "zel/service.h"

namespace zeld {

namespace {

using service::error_limit;
using service::error_not_found;
using service::error_unsupported;
using service::stat_all;

std::size_t size_of_entry()
{
    zel_stat_result_entry_t entry{};
    const zel_stat_results_t none{0, 0, nullptr};
    const zel_stat_results_t one{0, 1, &entry};
    return zel_stat_results_get_tlv_sz(&one) - zel_stat_results_get_tlv_sz(&none);
}

std::span<zel_stat_request_entry_t *const> queries_of(const Request &request)
{
    return members(*static_cast<const zel_stat_request_t *>(request.object.get()));
}

} // namespace

Statistics::Statistics(const Policies &policies, const Request &request, std::size_t max_body, bool is_read_only)
    : policies_(policies), request_(request), max_entries_(max_body / size_of_entry())
{
    if (request.header.op_code != service::op_code_stats)
        throw Refusal(error_unsupported, "op_code {} is not known for a statistics request", request.header.op_code);
    for (const zel_stat_request_entry_t *const query : queries_of(request)) {
        if ((query->flag & ~uint32_t{service::stat_flag_clear}) != 0)
            throw Refusal(error_unsupported, "flag {:#x} of a statistics query is not known", query->flag);
        if (is_read_only && query->flag != 0)
            throw Refusal(service::error_denied, "counters cannot be cleared at this address");
    }
}

void Statistics::collect()
{
    for (const zel_stat_request_entry_t *const query : queries_of(request_))
        add(*query);
    for (auto &[counters, was] : cleared_)
        was = std::exchange(*counters, {});
    is_collected_ = true;
}

Statistics::~Statistics()
{
    for (const auto &[counters, was] : cleared_) {
        counters->packets += is_answered_ ? 0 : was.packets;
        counters->bytes += is_answered_ ? 0 : was.bytes;
    }
}

Answer Statistics::answer()
{
    zel_request_t converted{};
    converted.size = sizeof converted;
    const std::unique_ptr<zel_request_t, decltype(&zel_request_free)> owner(&converted, zel_request_free);
    if (zel_request_answer_stats(&converted, entries_.data(), static_cast<uint32_t>(entries_.size())) != ZEL_REQUEST_OK)
        throw std::bad_alloc();
    Answer given = success("statistics");
    const auto *const bytes = static_cast<const unsigned char *>(converted.reply[1].address);
    given.body.assign(bytes, bytes + converted.reply[1].length);
    is_answered_ = true;
    return given;
}

void Statistics::add(const zel_stat_request_entry_t &query)
{
    const uint32_t app_type = request_.header.app_type;
    if (query.policy_id != stat_all)
        return add(*policies_.get({app_type, query.policy_id}), query);
    const auto &all = policies_.all();
    for (auto entry = all.lower_bound({app_type, 0}); entry != all.end() && entry->first.app_type == app_type; ++entry)
        add(*entry->second, query);
}

void Statistics::add(const Policy &policy, const zel_stat_request_entry_t &query)
{
    // A policy without pairs takes time, too: it is charged like an entry.
    take_one();
    if (query.match_action_pair_id != stat_all) {
        const Pair *const pair = policy.pair(query.match_action_pair_id);
        if (pair == nullptr)
            throw Refusal(error_not_found, "policy {} has no pair {}", policy.id(), query.match_action_pair_id);
        return add(policy, *pair, query.flag);
    }
    if (policy.num_pairs() > max_entries_ - num_taken_)
        throw Refusal(error_limit,
                      "the answer would have more than {} entries; ask for one policy, or raise --max-message",
                      max_entries_);
    for (const Pair *const pair : policy.pairs_in_order()) {
        take_one();
        add(policy, *pair, query.flag);
    }
}

void Statistics::add(const Policy &policy, const Pair &pair, uint32_t flag)
{
    const Counters &counters = *pair.counters;
    entries_.push_back({service::stat_tag_pair,
                        request_.header.app_type,
                        {policy.id(), pair.record.id},
                        {{counters.packets, counters.bytes}}});
    if ((flag & service::stat_flag_clear) != 0)
        cleared_.emplace_back(pair.counters, Counters{});
}

void Statistics::take_one()
{
    if (++num_taken_ > max_entries_)
        throw Refusal(error_limit,
                      "the answer would have more than {} entries; ask for one policy, or raise --max-message",
                      max_entries_);
}

} // namespace zeld
