// zelctl policy diff: what differs between files and the service.
#include "tools/json/bad_input.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/policy_diff.hpp"
#include "tools/zelctl/policy_files.hpp"
#include "tools/zelctl/service_policies.hpp"

#include <fmt/core.h>

#include <memory>

namespace zelctl {
namespace {

constexpr std::string_view service_name = "service";

struct DiffArguments {
    std::string before;
    std::string after;
};

// The policies of one side, by id.
class Side {
public:
    Side(const Options &options, const std::string &name) : is_service_(name == service_name)
    {
        if (is_service_)
            return;
        files_ = PolicyFiles::read_either(options.app, {name});
        for (std::size_t i = 0; i < files_->size(); ++i)
            policies_.emplace(files_->at(i).id, &files_->at(i));
    }

    bool is_service() const { return is_service_; }
    const std::map<uint16_t, const zel_policy_t *> &policies() const { return policies_; }

    // Fetches the policies that the other side has, as far as the service has them.
    void fetch(const Options &options, const Side &other)
    {
        Connection connection(options);
        for (const service::Summary &summary : list_policies(connection, options.app))
            if (other.is_service() || other.policies().contains(summary.policy_id)) {
                const tools::Message &message =
                    messages_.emplace_back(fetch_policy(connection, options.app, summary.policy_id));
                policies_.emplace(summary.policy_id, &message.graph.as<zel_policy_t>());
            }
    }

    const zel_policy_t *find(uint16_t id) const
    {
        const auto found = policies_.find(id);
        return found != policies_.end() ? found->second : nullptr;
    }

private:
    bool is_service_;
    std::optional<PolicyFiles> files_{};
    std::deque<tools::Message> messages_{};
    std::map<uint16_t, const zel_policy_t *> policies_{};
};

int run_diff(const Options &options, const DiffArguments &arguments)
{
    Side before(options, arguments.before);
    Side after(options, arguments.after);
    if (before.is_service() && after.is_service())
        throw CLI::ValidationError("A and B", "one of them must be a file");
    if (before.is_service())
        before.fetch(options, after);
    if (after.is_service())
        after.fetch(options, before);
    std::set<uint16_t> ids;
    for (const Side *const side : {&before, &after})
        for (const auto &[id, policy] : side->policies())
            ids.insert(id);
    bool differs = false;
    tools::Json json = tools::Json::array();
    for (const uint16_t id : ids) {
        const PolicyChange change = compare(before.find(id), after.find(id));
        differs |= change.kind != ChangeKind::unchanged;
        if (!options.json)
            fmt::print("{}", show(change));
        else if (change.kind != ChangeKind::unchanged)
            json.push_back(to_json(change));
    }
    if (options.json)
        print_json(json);
    return differs ? exit_found : exit_ok;
}

} // namespace

void add_diff_command(const CommandLine &line, CLI::App *policy)
{
    const auto arguments = std::make_shared<DiffArguments>();
    CLI::App *const diff = policy->add_subcommand(
        "diff", "Show what changes from A to B, by pair and match and action; exit code 7 when something does");
    diff->add_option("A", arguments->before,
                     "A file of policies, or \"service\": those of the service that the other side has")
        ->required();
    diff->add_option("B", arguments->after, "The same")->required();
    when_given(line, diff, [&options = line.options, arguments] { return run_diff(options, *arguments); });
}

} // namespace zelctl
