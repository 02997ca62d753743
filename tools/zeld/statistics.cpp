#include "tools/zeld/statistics.hpp"

#include "zel-platform/tlv_check.h"

namespace zeld {

namespace {

using service::error_limit;
using service::error_not_found;
using service::error_unsupported;
using service::stat_all;

class Collector {
public:
    Collector(const Policies &policies, uint32_t app_type, std::size_t max_size)
        : policies_(policies), app_type_(app_type), max_entries_(max_size / size_of_entry())
    {}

    void add(const zel_stat_request_entry_t &query)
    {
        if ((query.flag & ~uint32_t{service::stat_flag_clear}) != 0)
            throw Refusal(error_unsupported, "flag {:#x} of a statistics query is not known", query.flag);
        if (query.policy_id != stat_all)
            return add(policies_.get({app_type_, query.policy_id}), query);
        for (Policy *const policy : policies_.of_application(app_type_))
            add(*policy, query);
    }

    Bytes finish()
    {
        const zel_stat_results_t results{service::stat_tag_results, static_cast<uint32_t>(entries_.size()),
                                         entries_.data()};
        Bytes body(TLV_ARRAY_OVERHEAD + zel_stat_results_get_tlv_sz(&results));
        uint32_t written = 0;
        if (const int32_t code = zel_stat_results_to_tlv(&results, body.data(), body.size(), &written, 0, 0); code != 0)
            throw std::logic_error(fmt::format("{} statistics entries were not converted: {}", entries_.size(), code));
        body.resize(written);
        for (const PairCounters &counters : to_clear_)
            counters.policy->clear(counters.pair);
        return body;
    }

private:
    struct PairCounters {
        Policy *policy;
        uint32_t pair; // position in the pair group
    };

    static std::size_t size_of_entry()
    {
        zel_stat_result_entry_t entry{};
        const zel_stat_results_t none{0, 0, nullptr};
        const zel_stat_results_t one{0, 1, &entry};
        return zel_stat_results_get_tlv_sz(&one) - zel_stat_results_get_tlv_sz(&none);
    }

    void add(Policy &policy, const zel_stat_request_entry_t &query)
    {
        // A policy without pairs takes time, too: it is charged like an entry.
        take_one();
        if (query.match_action_pair_id != stat_all) {
            const auto pair = policy.position_of(query.match_action_pair_id);
            if (!pair)
                throw Refusal(error_not_found, "policy {} has no pair {}", policy.graph().id,
                              query.match_action_pair_id);
            return add(policy, *pair, query.flag);
        }
        for (uint32_t pair = 0; pair < policy.graph().match_action_pair_group.num_pair; ++pair) {
            take_one();
            add(policy, pair, query.flag);
        }
    }

    void add(Policy &policy, uint32_t pair, uint32_t flag)
    {
        const Policy::Counters &counters = policy.counters(pair);
        const uint16_t policy_id = policy.graph().id;
        const uint16_t pair_id = members(policy.graph().match_action_pair_group)[pair]->id;
        entries_.push_back(
            {service::stat_tag_pair, app_type_, {policy_id, pair_id}, {{counters.packets, counters.bytes}}});
        if ((flag & service::stat_flag_clear) != 0)
            to_clear_.push_back({&policy, pair});
    }

    void take_one()
    {
        if (++num_taken_ > max_entries_)
            throw Refusal(error_limit, "the answer would have more than {} entries", max_entries_);
    }

    const Policies &policies_;
    uint32_t app_type_;
    std::size_t max_entries_;
    std::size_t num_taken_ = 0;
    std::vector<zel_stat_result_entry_t> entries_;
    std::vector<PairCounters> to_clear_;
};

} // namespace

Bytes answer_statistics(const Policies &policies, uint32_t app_type, const zel_stat_request_t &request,
                        std::size_t max_size)
{
    Collector collector(policies, app_type, max_size);
    for (const zel_stat_request_entry_t *const query : members(request))
        collector.add(*query);
    return collector.finish();
}

} // namespace zeld
