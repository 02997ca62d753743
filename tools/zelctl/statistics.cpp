#include "tools/zelctl/statistics.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <functional>

namespace zelctl {

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

// Counters that went back have been set to zero in between.
static Counters base_of(const Statistics &before, const std::pair<uint16_t, uint16_t> &ids, const Counters &now)
{
    const auto found = before.find(ids);
    const bool is_cleared =
        found == before.end() || now.packets < found->second.packets || now.bytes < found->second.bytes;
    return is_cleared ? Counters{} : found->second;
}

std::vector<Row> make_rows(const Statistics &statistics, const View &view, const Statistics *before, double seconds)
{
    std::vector<Row> rows;
    for (const auto &[ids, counters] : statistics) {
        Row row{ids.first, ids.second, counters};
        const Counters old = before != nullptr ? base_of(*before, ids, counters) : counters;
        if (before != nullptr && seconds > 0) {
            row.packet_rate = static_cast<double>(counters.packets - old.packets) / seconds;
            row.byte_rate = static_cast<double>(counters.bytes - old.bytes) / seconds;
        }
        if (!view.only_changed || counters.packets != old.packets || counters.bytes != old.bytes)
            rows.push_back(row);
    }
    if (view.sort == SortBy::packets)
        std::ranges::stable_sort(rows, std::ranges::greater(), [](const Row &row) { return row.now.packets; });
    else if (view.sort == SortBy::bytes)
        std::ranges::stable_sort(rows, std::ranges::greater(), [](const Row &row) { return row.now.bytes; });
    else if (view.sort == SortBy::rate)
        std::ranges::stable_sort(rows, std::ranges::greater(), &Row::packet_rate);
    return rows;
}

tools::Json to_json(const std::vector<Row> &rows, bool has_rates)
{
    tools::Json json = tools::Json::array();
    for (const Row &row : rows) {
        tools::Json &one = json.emplace_back(tools::Json{{"policy_id", row.policy},
                                                         {"match_action_pair_id", row.pair},
                                                         {"packets", row.now.packets},
                                                         {"bytes", row.now.bytes}});
        if (!has_rates)
            continue;
        one["packets_per_second"] = row.packet_rate;
        one["bytes_per_second"] = row.byte_rate;
    }
    return json;
}

std::string show_as_table(const std::vector<Row> &rows, bool has_rates)
{
    std::string table = fmt::format("{:>6} {:>6} {:>20} {:>20}", "policy", "pair", "packets", "bytes");
    if (has_rates)
        table += fmt::format(" {:>14} {:>14}", "packets/s", "bytes/s");
    for (const Row &row : rows) {
        table += fmt::format("\n{:>6} {:>6} {:>20} {:>20}", row.policy, row.pair, row.now.packets, row.now.bytes);
        if (has_rates)
            table += fmt::format(" {:>14.1f} {:>14.1f}", row.packet_rate, row.byte_rate);
    }
    return table + "\n";
}

} // namespace zelctl
