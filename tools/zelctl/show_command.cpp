// zelctl policy show: a list of the policies, or one of them to read.
#include "tools/json/names.hpp"
#include "tools/json/writer.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/policy_text.hpp"
#include "tools/zelctl/service_policies.hpp"

#include <fmt/core.h>

#include <memory>
#include <optional>

namespace zelctl {
namespace {

std::string show_list(const std::vector<service::Summary> &policies)
{
    std::string table = fmt::format("{:>6} {:>8} {:>10} {:>8} {:>12} {:>12}\n", "policy", "version", "mode", "pairs",
                                    "interfaces", "bytes");
    for (const service::Summary &policy : policies) {
        const tools::Json mode = tools::show_named(policy.op_mode, tools::op_modes);
        table += fmt::format("{:>6} {:>8} {:>10} {:>8} {:>12} {:>12}\n", policy.policy_id, policy.version,
                             mode.is_string() ? mode.get<std::string>() : mode.dump(), policy.num_pairs,
                             policy.num_interfaces, policy.bytes);
    }
    return table;
}

// One after the other, so that any number of policies is shown.  Each policy by itself,
// because an id may mean another object in another policy.
void print_all_as_json(const Options &options, Connection &connection)
{
    const std::vector<service::Summary> policies = list_policies(connection, options.app);
    fmt::print("[");
    const char *separator = "\n";
    for (const service::Summary &summary : policies) {
        const tools::Message message = fetch_policy(connection, options.app, summary.policy_id);
        fmt::print("{}{}", separator, show_json(write_graph(message.graph), 2));
        separator = ",\n";
    }
    fmt::print("{}]\n", std::string_view(separator) == "\n" ? "" : "\n");
}

int run_show(const Options &options, std::optional<uint16_t> id)
{
    Connection connection(options);
    if (!id && options.json) {
        print_all_as_json(options, connection);
    } else if (!id) {
        fmt::print("{}", show_list(list_policies(connection, options.app)));
    } else {
        const tools::Message message = fetch_policy(connection, options.app, *id);
        if (options.json)
            print_json(write_graph(message.graph), 2);
        else
            fmt::print("{}", show_policy(message.graph.as<zel_policy_t>(), terminal_width()));
    }
    return exit_ok;
}

} // namespace

void add_show_command(const CommandLine &line, CLI::App *policy)
{
    const auto id = std::make_shared<std::optional<uint16_t>>();
    CLI::App *const show = policy->add_subcommand(
        "show", "List the policies, or show one, a line a pair; with --json the content of all or of one");
    show->add_option("ID", *id, "The policy")->check(policy_id_range());
    when_given(line, show, [&options = line.options, id] { return run_show(options, *id); });
}

} // namespace zelctl
