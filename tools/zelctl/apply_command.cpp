// zelctl policy apply: sends what differs between files and the service.
#include "tools/json/progress.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/policy_changes.hpp"
#include "tools/zelctl/policy_files.hpp"

#include <fmt/core.h>

#include <memory>

namespace zelctl {
namespace {

struct ApplyArguments {
    std::vector<std::string> paths;
    bool each = false;
    bool replaces = false;
    bool is_dry_run = false;
};

// ---- The old way: whole policies, whose counters start at 0

int replace_each(const Options &options, const PolicyFiles &files)
{
    Connection connection(options);
    tools::Progress progress("applying policies", files.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
            return zel_policy_update(handle, &files.at(i), service::op_code_set, msg);
        });
        progress.clear();
        if (const int code = report(options, answer, fmt::format("policy {} applied", files.at(i).id)); code != exit_ok)
            return code;
        progress.reached(i + 1);
    }
    return exit_ok;
}

int replace_together(const Options &options, PolicyFiles &files)
{
    Connection connection(options);
    const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
        const zel_policy_list_t list = files.list();
        return zel_policy_list_update(handle, &list, service::op_code_set, msg);
    });
    return report(options, answer, fmt::format("{} policies applied", files.size()));
}

// ---- What differs

std::string done_text(const PolicyChange &change)
{
    switch (change.kind) {
    case ChangeKind::unchanged:
        return fmt::format("policy {} unchanged", change.id);
    case ChangeKind::added:
        return fmt::format("policy {} applied: new, {}", change.id, plural(change.pairs.size(), "pair"));
    default:
        return fmt::format("policy {} applied: pairs: {} changed, {} added, {} removed; counters of {} kept", change.id,
                           change.count(ChangeKind::changed), change.count(ChangeKind::added),
                           change.count(ChangeKind::removed), change.num_kept);
    }
}

void print_changes(const Options &options, const ApplyArguments &arguments, const ChangeSet &changes)
{
    if (options.json) {
        tools::Json json{{"refused", false}, {"dry_run", arguments.is_dry_run}, {"bytes", changes.bytes()}};
        json["policies"] = tools::Json::array();
        for (const PolicyChange &change : changes.changes())
            json["policies"].push_back(to_json(change));
        return print_json(json);
    }
    for (const PolicyChange &change : changes.changes())
        if (arguments.is_dry_run)
            fmt::print("{}", change.kind == ChangeKind::unchanged ? done_text(change) + "\n" : show(change));
        else
            fmt::print("{}\n", done_text(change));
    if (arguments.is_dry_run && changes.bytes() != 0)
        fmt::print("dry run: the service would take this; nothing was changed\n");
    else if (!arguments.is_dry_run && changes.changes().size() > 1)
        fmt::print("{} policies applied\n", changes.changes().size());
}

// The policies of one request, all or none.
int apply_some(const Options &options, const ApplyArguments &arguments, Connection &connection,
               const std::vector<const zel_policy_t *> &policies, const Present &present)
{
    const Details details = options.json || arguments.is_dry_run ? Details::of_pairs : Details::of_policy;
    const ChangeSet changes(connection, options.app, policies, present, details);
    if (changes.bytes() != 0) {
        const Answer answer = changes.send(connection, arguments.is_dry_run);
        if (answer.refused())
            return report(options, answer, {});
    }
    print_changes(options, arguments, changes);
    return exit_ok;
}

int apply_changes(const Options &options, const ApplyArguments &arguments, const PolicyFiles &files)
{
    Connection connection(options);
    std::vector<const zel_policy_t *> policies;
    for (std::size_t i = 0; i < files.size(); ++i)
        policies.push_back(&files.at(i));
    const Present present = by_key(list_policies(connection, options.app));
    if (!arguments.each)
        return apply_some(options, arguments, connection, policies, present);
    for (const zel_policy_t *const policy : policies)
        if (const int code = apply_some(options, arguments, connection, {policy}, present); code != exit_ok)
            return code;
    return exit_ok;
}

int run_apply(const Options &options, const ApplyArguments &arguments)
{
    PolicyFiles files(options.app, arguments.each ? Requests::one_each : Requests::one);
    for (const std::string &path : arguments.paths)
        files.read(path);
    if (files.size() == 0)
        throw tools::BadInput(arguments.paths.front() + ": holds no policy");
    if (!arguments.replaces)
        return apply_changes(options, arguments, files);
    return files.size() == 1 || arguments.each ? replace_each(options, files) : replace_together(options, files);
}

} // namespace

void add_apply_command(const CommandLine &line, CLI::App *policy)
{
    const auto arguments = std::make_shared<ApplyArguments>();
    CLI::App *const apply =
        policy->add_subcommand("apply", "Make the service's policies those in files: send what differs, and keep the "
                                        "counters of the pairs that stay");
    apply->add_option("FILE", arguments->paths, "A policy, or an array of policies, as JSON; - is standard input")
        ->required();
    apply->add_flag("--each", arguments->each,
                    "A request for each policy instead of one for all: policies may use an id differently, and "
                    "those before a refused one stay applied");
    CLI::Option *const dry = apply->add_flag("--dry-run", arguments->is_dry_run,
                                             "Show what would change; the service checks it and changes nothing");
    apply->add_flag("--replace", arguments->replaces, "Send whole policies, whose counters start at 0")->excludes(dry);
    when_given(line, apply, [&options = line.options, arguments] { return run_apply(options, *arguments); });
}

} // namespace zelctl
