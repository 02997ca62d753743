// zelctl stats: shows the counters of pairs, once or repeatedly.
#include "tools/message/service_protocol.hpp"
#include "tools/zelctl/statistics.hpp"

#include <chrono>
#include <fmt/core.h>

#include <memory>
#include <optional>
#include <thread>

namespace zelctl {
namespace {

struct Arguments {
    std::optional<uint16_t> policy;
    std::optional<uint16_t> pair;
    bool clear = false;
    bool watch = false;
    double interval = 1; // seconds
    uint32_t rounds = 0; // 0: until interrupted
};

int pull_once(const Options &options, Connection &connection, const zel_stat_request_t &request, Statistics &statistics)
{
    const Answer answer = connection.request(
        [&](zel_api_handle_t *handle, kob_msg_t *msg) { return zel_stats_pull(handle, &request, msg); });
    if (answer.refused())
        return report(options, answer, {});
    statistics = read_statistics(answer);
    return exit_ok;
}

int run_stats(const Options &options, const Arguments &arguments)
{
    using Clock = std::chrono::steady_clock;

    zel_stat_request_entry_t entry{};
    entry.policy_id = arguments.policy.value_or(service::stat_all);
    entry.match_action_pair_id = arguments.pair.value_or(service::stat_all);
    entry.flag = arguments.clear ? service::stat_flag_clear : service::stat_flag_none;
    zel_stat_request_entry_t *entries[] = {&entry};
    const zel_stat_request_t request{1, entries};

    Connection connection(options);
    std::optional<Statistics> before;
    Clock::time_point pulled_before;
    const uint32_t rounds = arguments.watch ? arguments.rounds : 1;
    for (uint32_t round = 1;; ++round) {
        Statistics statistics;
        const Clock::time_point pulled = Clock::now();
        if (const int code = pull_once(options, connection, request, statistics); code != exit_ok)
            return code;
        const double seconds = std::chrono::duration<double>(pulled - pulled_before).count();
        fmt::print("{}", options.json ? show_as_json(statistics)
                                      : show_as_table(statistics, before ? &*before : nullptr, seconds));
        (void)std::fflush(stdout);
        if (round == rounds)
            return exit_ok;
        before = std::move(statistics);
        pulled_before = pulled;
        std::this_thread::sleep_until(pulled + std::chrono::duration<double>(arguments.interval));
    }
}

} // namespace

void add_stats_command(const CommandLine &line)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App *const stats = line.app.add_subcommand("stats", "Show how many packets and bytes pairs have matched");
    stats->add_option("--policy", arguments->policy, "Only this policy")->type_name("ID");
    stats->add_option("--pair", arguments->pair, "Only this pair")->type_name("ID");
    stats->add_flag("--clear", arguments->clear, "Set the counters to zero after reading them");
    CLI::Option *const watch =
        stats->add_flag("--watch", arguments->watch, "Show them again and again, with rates, until interrupted");
    stats->add_option("--interval", arguments->interval, "Seconds between two looks")
        ->needs(watch)
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();
    stats->add_option("--rounds", arguments->rounds, "End after so many looks")->needs(watch);
    when_given(line, stats, [&options = line.options, arguments] { return run_stats(options, *arguments); });
}

} // namespace zelctl
