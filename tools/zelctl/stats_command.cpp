// zelctl stats: shows the counters of pairs, once or repeatedly.
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/policy_text.hpp"
#include "tools/zelctl/service_policies.hpp"
#include "tools/zelctl/statistics.hpp"

#include <chrono>
#include <ctime>
#include <fmt/core.h>

#include <memory>
#include <optional>
#include <thread>

namespace zelctl {
namespace {

using Clock = std::chrono::steady_clock;

struct StatsArguments {
    std::optional<uint16_t> policy;
    std::optional<uint16_t> pair;
    bool clear = false;
    bool watch = false;
    double interval = 1; // seconds
    uint32_t rounds = 0; // 0: until interrupted
    std::string sort = "id";
    View view;
};

SortBy sort_named(std::string_view name)
{
    if (name == "packets")
        return SortBy::packets;
    if (name == "bytes")
        return SortBy::bytes;
    return name == "rate" ? SortBy::rate : SortBy::id;
}

struct Pulled {
    Statistics statistics;
    Clock::time_point time;
};

Pulled pull(Connection &connection, const StatsArguments &arguments)
{
    zel_stat_request_entry_t entry{};
    entry.policy_id = arguments.policy.value_or(service::stat_all);
    entry.match_action_pair_id = arguments.pair.value_or(service::stat_all);
    entry.flag = arguments.clear ? service::stat_flag_clear : service::stat_flag_none;
    zel_stat_request_entry_t *entries[] = {&entry};
    const zel_stat_request_t request{1, entries};
    const Clock::time_point now = Clock::now();
    const Answer answer = accepted(connection.request(
        [&](zel_api_handle_t *handle, kob_msg_t *msg) { return zel_stats_pull(handle, &request, msg); },
        arguments.clear ? Effect::changes : Effect::reads));
    return {read_statistics(answer), now};
}

int run_once(const Options &options, const StatsArguments &arguments)
{
    Connection connection(options);
    const std::vector<Row> rows = make_rows(pull(connection, arguments).statistics, arguments.view);
    if (options.json)
        print_json(to_json(rows));
    else
        fmt::print("{}", show_as_table(rows));
    return exit_ok;
}

// ---- Again and again

std::string time_text(const char *format)
{
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    char text[32] = "";
    if (gmtime_r(&now, &parts) != nullptr)
        (void)std::strftime(text, sizeof text, format, &parts);
    return text;
}

// On a terminal, each look is drawn over the one before; elsewhere, they follow each other.
class Watch {
public:
    Watch(const Options &options, const StatsArguments &arguments)
        : options_(options), arguments_(arguments), is_drawn_(terminal_height() != SIZE_MAX && !options.json)
    {}

    int run()
    {
        for (uint32_t round = 1;; ++round) {
            const Clock::time_point begin = Clock::now();
            look();
            (void)std::fflush(stdout);
            if (round == arguments_.rounds)
                return exit_ok;
            std::this_thread::sleep_until(begin + std::chrono::duration<double>(arguments_.interval));
        }
    }

private:
    // Behind the first look, the service may be away for a while: it is restarted.
    void look()
    {
        try {
            if (connection_ == nullptr)
                connection_ = std::make_unique<Connection>(options_);
            Pulled pulled = pull(*connection_, arguments_);
            show(pulled);
            before_ = std::move(pulled);
            has_looked_ = true;
        } catch (const Refused &) {
            throw;
        } catch (const NoService &fault) {
            if (!has_looked_)
                throw;
            connection_ = nullptr;
            before_.reset();
            show_fault(fault.what());
        }
    }

    void show(const Pulled &pulled) const
    {
        const double seconds = before_ ? std::chrono::duration<double>(pulled.time - before_->time).count() : 0;
        const std::vector<Row> rows =
            make_rows(pulled.statistics, arguments_.view, before_ ? &before_->statistics : nullptr, seconds);
        if (options_.json)
            return print_json({{"time", time_text("%Y-%m-%dT%H:%M:%SZ")}, {"pairs", to_json(rows, true)}});
        const std::string head =
            fmt::format("{}  {}{}", time_text("%H:%M:%S UTC"), plural(pulled.statistics.size(), "pair"),
                        arguments_.view.only_changed ? fmt::format(", {} changed", rows.size()) : "");
        print_look(head + "\n" + show_as_table(rows, before_.has_value()));
    }

    void show_fault(const std::string &text) const
    {
        if (options_.json)
            return print_json({{"time", time_text("%Y-%m-%dT%H:%M:%SZ")}, {"error", text}});
        print_look(fmt::format("{}  {}; trying again\n", time_text("%H:%M:%S UTC"), tools::safe_text(text)));
    }

    // Cut to the terminal's size; the last line says how much is missing.
    void print_look(std::string_view text) const
    {
        if (!is_drawn_) {
            fmt::print("{}", text);
            return;
        }
        const std::size_t width = terminal_width();
        const std::size_t height = std::max<std::size_t>(terminal_height(), 3);
        std::string screen = "\x1b[H";
        std::size_t num_lines = 0;
        std::size_t num_left_out = 0;
        for (; !text.empty(); ++num_lines) {
            const std::string_view line = text.substr(0, text.find('\n'));
            text.remove_prefix(std::min(line.size() + 1, text.size()));
            if (num_lines + 2 < height)
                screen += fmt::format("{}\x1b[K\n", line.substr(0, width));
            else
                ++num_left_out;
        }
        if (num_left_out != 0)
            screen += fmt::format("{} more\x1b[K", num_left_out);
        fmt::print("{}\x1b[J", screen);
    }

    const Options &options_;
    const StatsArguments &arguments_;
    bool is_drawn_;
    std::unique_ptr<Connection> connection_{};
    std::optional<Pulled> before_{};
    bool has_looked_ = false;
};

int run_watch(const Options &options, const StatsArguments &arguments)
{
    if (terminal_height() != SIZE_MAX && !options.json)
        fmt::print("\x1b[2J");
    return Watch(options, arguments).run();
}

} // namespace

void add_stats_command(const CommandLine &line)
{
    const auto arguments = std::make_shared<StatsArguments>();
    CLI::App *const stats = line.app.add_subcommand("stats", "Show how many packets and bytes pairs have matched");
    stats->add_option("--policy", arguments->policy, "Only this policy")->type_name("ID")->check(policy_id_range());
    stats->add_option("--pair", arguments->pair, "Only this pair")->type_name("ID")->check(policy_id_range());
    stats->add_flag("--clear", arguments->clear, "Set the counters to zero after reading them");
    stats
        ->add_option("--sort", arguments->sort,
                     "By id, or the largest first: packets, bytes, or with --watch rate, in packets per second")
        ->check(CLI::IsMember({"id", "packets", "bytes", "rate"}))
        ->type_name("")
        ->capture_default_str();
    CLI::Option *const watch = stats->add_flag(
        "--watch", arguments->watch,
        "Show them again and again, with rates, until interrupted; on a terminal in place; waits for a service that "
        "is away");
    stats
        ->add_flag("--changed", arguments->view.only_changed,
                   "Only pairs whose counters have changed since the last look")
        ->needs(watch);
    stats->add_option("--interval", arguments->interval, "Seconds between two looks, from 0.001 to 86400")
        ->needs(watch)
        ->check(CLI::Range(0.001, 86400.0).description(""))
        ->capture_default_str();
    stats->add_option("--rounds", arguments->rounds, "End after so many looks")->needs(watch);
    when_given(line, stats, [&options = line.options, arguments] {
        arguments->view.sort = sort_named(arguments->sort);
        return arguments->watch ? run_watch(options, *arguments) : run_once(options, *arguments);
    });
}

} // namespace zelctl
