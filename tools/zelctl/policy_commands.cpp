// zelctl policy: the commands about whole policies.
#include "tools/zelctl/connection.hpp"

#include "tools/records/service_protocol.hpp"

#include <fmt/core.h>

#include <memory>

namespace zelctl {
namespace {

// One request each.  All are tried; the exit code is that of the first refusal.
int run_delete(const Options &options, const std::vector<uint16_t> &ids)
{
    Connection connection(options);
    int code = exit_ok;
    for (const uint16_t id : ids) {
        const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
            return zel_policy_delete(handle, id, service::op_code_remove, msg);
        });
        const int one = report(options, answer, fmt::format("policy {} deleted", id));
        code = code == exit_ok ? one : code;
    }
    return code;
}

} // namespace

void add_policy_commands(const CommandLine &line)
{
    CLI::App *const policy = line.app.add_subcommand("policy", "Apply, check, compare, show and delete policies");
    policy->require_subcommand(1);
    add_apply_command(line, policy);
    add_check_command(line, policy);
    add_diff_command(line, policy);
    add_show_command(line, policy);

    const auto ids = std::make_shared<std::vector<uint16_t>>();
    CLI::App *const remove = policy->add_subcommand("delete", "Delete policies");
    remove->add_option("ID", *ids, "The policies")->required()->check(policy_id_range());
    when_given(line, remove, [&options = line.options, ids] { return run_delete(options, *ids); });
}

} // namespace zelctl
