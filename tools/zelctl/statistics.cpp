#include "tools/zelctl/statistics.hpp"

#include "tools/json/notation.hpp"

#include <fmt/core.h>

namespace zelctl {

// Counters that went back have been set to zero in between.
static bool is_cleared(const Counters &before, const Counters &now)
{
    return now.packets < before.packets || now.bytes < before.bytes;
}

Statistics read_statistics(const Answer &answer)
{
    const std::unique_ptr<zel_stat_results_t, void (*)(zel_stat_results_t *)> results(
        zel_parse_stats(answer.record.get()), zel_free_stat_results);
    if (results == nullptr)
        throw NoService("the answer carries no statistics that can be read");
    Statistics statistics;
    for (uint32_t i = 0; i < results->num_entries; ++i) {
        const zel_stat_result_entry_t &entry = results->entries[i];
        statistics[{entry.ids[0], entry.ids[1]}] = {entry.stats[0].counter1, entry.stats[0].counter2};
    }
    return statistics;
}

std::string show_as_json(const Statistics &statistics)
{
    tools::Json json = tools::Json::array();
    for (const auto &[ids, counters] : statistics)
        json.push_back({{"policy_id", ids.first},
                        {"match_action_pair_id", ids.second},
                        {"packets", counters.packets},
                        {"bytes", counters.bytes}});
    return json.dump() + "\n";
}

std::string show_as_table(const Statistics &statistics, const Statistics *before, double seconds)
{
    std::string table = fmt::format("{:>6} {:>6} {:>20} {:>20}", "policy", "pair", "packets", "bytes");
    if (before != nullptr)
        table += fmt::format(" {:>14} {:>14}", "packets/s", "bytes/s");
    for (const auto &[ids, counters] : statistics) {
        table += fmt::format("\n{:>6} {:>6} {:>20} {:>20}", ids.first, ids.second, counters.packets, counters.bytes);
        if (before == nullptr)
            continue;
        const auto found = before->find(ids);
        const Counters old = found == before->end() || is_cleared(found->second, counters) ? Counters{} : found->second;
        table += fmt::format(" {:>14.1f} {:>14.1f}", static_cast<double>(counters.packets - old.packets) / seconds,
                             static_cast<double>(counters.bytes - old.bytes) / seconds);
    }
    return table + "\n";
}

} // namespace zelctl
