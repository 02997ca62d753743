// zelctl fleet apply, delete, confirm, undo, diff: commands that make revisions.
#include "tools/json/reader.hpp"
#include "tools/json/writer.hpp"
#include "tools/message/message.hpp"
#include "tools/records/service_protocol.hpp"
#include "tools/zelctl/connection.hpp"
#include "tools/zelctl/fleet/commands.hpp"
#include "tools/zelctl/output.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <thread>

namespace zelctl {
namespace {

using namespace fleet;

struct ChangeArguments {
    std::string comment;
    std::optional<uint64_t> expected;
    bool dry_run = false;
    std::string canary;
    std::size_t stop_on = 1;
    double pause = 0; // seconds
    uint32_t confirm = 0;
    uint64_t expire = 0;
};

using PolicyMessages = std::map<PolicyKey, std::string>;

// The messages of the policies in files, each of which holds one policy or an array of them.
PolicyMessages read_policies(const std::vector<std::string> &paths, uint32_t app)
{
    PolicyMessages messages;
    const auto read = [&](const tools::Input &in) {
        tools::JsonReader reader(app);
        tools::Message message;
        message.graph = read_graph(reader, zel::wire::policy, in);
        const uint16_t id = message.graph.as<zel_policy_t>().id;
        message.header = {ZEL_API_POLICY_UPDATE, app, id, service::op_code_set};
        if (!messages.emplace(PolicyKey{app, id}, encode_message(message)).second)
            in.fail(fmt::format("policy {} has been given already", id));
    };
    for (const std::string &path : paths) {
        const tools::Document document = tools::read_json_file(path);
        const tools::JsonPath root;
        if (document.root.kind != tools::Node::Kind::array) {
            read({document, document.root, root});
            continue;
        }
        for (std::size_t i = 0; i < document.root.children.size(); ++i) {
            const tools::JsonPath path_of_policy = root.at(i);
            read({document, document.root.children[i], path_of_policy});
        }
    }
    if (messages.empty())
        throw tools::BadInput(paths.front() + ": holds no policy");
    return messages;
}

PolicySet put_objects(FleetSession &session, const PolicyMessages &messages, uint64_t expire)
{
    PolicySet set;
    for (const auto &[key, message] : messages) {
        Entry entry = session.store().put_object(message);
        entry.expires = expire != 0 ? wall_ms() / 1000 + expire : 0;
        set[key] = entry;
    }
    return set;
}

void refuse_unfinished(const Manifest *current)
{
    if (current != nullptr && !current->is_plain())
        throw Conflict(fmt::format("revision {} is staged or not confirmed: finish it with confirm, or undo it",
                                   current->revision.sequence));
}

// What makes the new set of policies of the old one.
using EditSet = std::function<void(PolicySet &set)>;

Edit plain(const EditSet &edit)
{
    return [edit](const Manifest *current) {
        refuse_unfinished(current);
        Manifest next;
        if (current != nullptr)
            next.policies = current->policies;
        edit(next.policies);
        return next;
    };
}

Change change_of(const FleetSession &session, const ChangeArguments &arguments)
{
    Change change = session.change(arguments.comment);
    change.expected = arguments.expected;
    return change;
}

int finish(const Options &options, FleetSession &session, const Manifest &manifest, const Results &results)
{
    print_results(options, session.group(), manifest.revision, results);
    return exit_code_of(results);
}

int commit_and_wait(const Options &options, FleetSession &session, const Change &change, const Edit &edit)
{
    const Manifest manifest = commit(session.store(), change, edit);
    return finish(options, session, manifest, session.await(manifest, session.nodes()));
}

// Every node fetches, verifies and compares, and changes nothing.
int dry_run(const Options &options, FleetSession &session, const Change &change, const Edit &edit)
{
    const Current current = session.store().current(session.group());
    const uint64_t sequence = current.manifest != nullptr ? current.manifest->revision.sequence : 0;
    if (change.expected && *change.expected != sequence)
        throw Conflict(fmt::format("group {} is at revision {}", change.group, sequence));
    Manifest manifest = edit(current.manifest.get());
    manifest.group = change.group;
    manifest.revision = {session.store().epoch(), sequence + 1};
    const std::set<std::string> nodes = session.nodes();
    Results results;
    for (const auto &[node, answer] : session.ask("plan\n" + session.encode(manifest), nodes)) {
        const std::string error = error_in(answer);
        const bool is_error = !error.empty();
        const std::string text =
            is_error ? error
                     : fmt::format("would set {}, would remove {}", show_json(answer.value("sets", Json())),
                                   show_json(answer.value("removals", Json())));
        results[node] = {is_error ? NodeResult::Kind::refused : NodeResult::Kind::done,
                         is_error ? "refused" : "would apply", text};
    }
    for (const std::string &node : nodes)
        results.try_emplace(node, NodeResult{NodeResult::Kind::silent, "silent", "no answer in time"});
    return finish(options, session, manifest, results);
}

// "1%,10%,100%" in hundredths of a percent.
std::vector<uint32_t> read_stages(const std::string &text)
{
    std::vector<uint32_t> stages;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t comma = std::min(text.find(',', at), text.size());
        std::size_t used = 0;
        double percent = -1;
        try {
            percent = std::stod(text.substr(at, comma - at), &used);
        } catch (const std::logic_error &) { // not a number: below
        }
        if (percent <= 0 || percent > 100 || text[at + used] != '%' || at + used + 1 != comma ||
            (!stages.empty() && percent * 100 <= stages.back()))
            throw CLI::ValidationError("--canary", text + " is not a list like 1%,10%,100%");
        stages.push_back(static_cast<uint32_t>(percent * 100));
        at = comma + 1;
    }
    if (stages.empty() || stages.back() != whole_fleet)
        throw CLI::ValidationError("--canary", "the last stage is not 100%");
    return stages;
}

// One revision for each stage.  When too many nodes refuse, a last one takes all back.
int roll_out(const Options &options, FleetSession &session, const ChangeArguments &arguments, const EditSet &edit)
{
    const std::vector<uint32_t> stages = read_stages(arguments.canary);
    const std::set<std::string> nodes = session.nodes();
    Change change = change_of(session, arguments);
    const std::string salt = random_id();
    PolicySet before;
    Manifest last;
    for (const uint32_t stage : stages) {
        last = commit(session.store(), change, [&](const Manifest *current) {
            if (stage == stages.front()) {
                refuse_unfinished(current);
                before = current != nullptr ? current->policies : PolicySet();
            }
            Manifest next;
            next.policies = before;
            edit(next.policies);
            next.stage = stage;
            next.salt = salt;
            if (stage != whole_fleet)
                next.previous = before;
            return next;
        });
        change.expected = last.revision.sequence; // nobody else is to come between the stages
        const Results results = session.await(last, nodes, arguments.stop_on);
        const auto refused =
            static_cast<std::size_t>(std::count_if(results.begin(), results.end(), [](const auto &one) {
                return one.second.kind == NodeResult::Kind::refused;
            }));
        if (stage == whole_fleet)
            return finish(options, session, last, results);
        print_results(options, session.group(), last.revision, results);
        if (refused >= arguments.stop_on) {
            change.comment = fmt::format("stopped: {} nodes refuse revision {}", refused, last.revision.sequence);
            const Manifest undone = commit(session.store(), change, [&](const Manifest *) {
                Manifest next;
                next.policies = before;
                return next;
            });
            const Results back = session.await(undone, nodes);
            print_results(options, session.group(), undone.revision, back);
            return exit_none;
        }
        if (exit_code_of(results) == exit_silent && !options.json)
            fmt::print(stderr, "zelctl: some nodes are silent; the rollout goes on\n");
        std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int64_t>(arguments.pause * 1000)));
    }
    return exit_failed; // the last stage returns
}

int run_change(const Options &options, FleetSession &session, const ChangeArguments &arguments, const EditSet &edit)
{
    const Change change = change_of(session, arguments);
    if (arguments.dry_run)
        return dry_run(options, session, change, plain(edit));
    if (!arguments.canary.empty())
        return roll_out(options, session, arguments, edit);
    return commit_and_wait(options, session, change, [&](const Manifest *current) {
        Manifest next = plain(edit)(current);
        next.confirm_s = arguments.confirm;
        if (arguments.confirm != 0 && current != nullptr)
            next.previous = current->policies;
        return next;
    });
}

void add_change_options(CLI::App *command, ChangeArguments &arguments)
{
    command->add_option("--message", arguments.comment, "Why, for the log");
    command->add_option("--expect", arguments.expected, "Only if the group is at this revision; 0: has none");
    CLI::Option *const dry = command->add_flag("--dry-run", arguments.dry_run,
                                               "Let every node fetch, verify and compare, without a revision");
    CLI::Option *const canary =
        command->add_option("--canary", arguments.canary, "Shares of the nodes, one after the other: 1%,10%,100%")
            ->excludes(dry);
    command->add_option("--stop-on", arguments.stop_on, "Take everything back when so many nodes refuse")
        ->needs(canary)
        ->check(CLI::Range(std::size_t{1}, std::size_t{1000000}))
        ->capture_default_str();
    command->add_option("--pause", arguments.pause, "Seconds between two shares")->needs(canary);
    command
        ->add_option("--confirm", arguments.confirm,
                     "Each node goes back after so many seconds, by its own clock, unless zelctl fleet confirm comes")
        ->excludes(dry)
        ->excludes(canary);
}

// ---- Older revisions

ManifestPtr find_revision(const std::vector<ManifestPtr> &history, uint64_t sequence)
{
    for (const ManifestPtr &manifest : history)
        if (manifest->revision.sequence == sequence)
            return manifest;
    throw BusError(fmt::format("revision {} is not kept", sequence));
}

// The policies before the newest change: an unfinished one is taken back, else the newest
// finished revision that differs.
PolicySet policies_before(const std::vector<ManifestPtr> &history)
{
    if (history.empty())
        throw BusError("there is no revision to undo");
    const Manifest &newest = *history.back();
    if (!newest.is_plain())
        return newest.previous;
    for (auto at = history.rbegin(); at != history.rend(); ++at)
        if ((*at)->is_plain() && (*at)->policies != newest.policies)
            return (*at)->policies;
    return {};
}

int run_undo(const Options &options, FleetSession &session, const std::optional<uint64_t> &to)
{
    const std::vector<ManifestPtr> history = session.store().history(session.group());
    const PolicySet set = to ? find_revision(history, *to)->policies : policies_before(history);
    Change change = session.change(to ? fmt::format("undo to revision {}", *to) : "undo");
    if (!history.empty())
        change.expected = history.back()->revision.sequence;
    return commit_and_wait(options, session, change, [&](const Manifest *) {
        Manifest next;
        next.policies = set;
        return next;
    });
}

int run_confirm(const Options &options, FleetSession &session)
{
    return commit_and_wait(options, session, session.change("confirmed"), [](const Manifest *current) {
        if (current == nullptr || current->is_plain())
            throw Conflict("nothing is staged or waits to be confirmed");
        Manifest next;
        next.policies = current->policies;
        return next;
    });
}

// ---- Differences

Json policy_json(FleetSession &session, const Entry &entry)
{
    const tools::Message message = tools::decode_message(session.store().object(entry), "object");
    return write_graph(message.graph);
}

int print_differences(const Options &options, FleetSession &session, const PolicySet &from, const PolicySet &to)
{
    PolicySet all = from;
    all.insert(to.begin(), to.end());
    Json json = Json::array();
    for (const auto &[key, any] : all) {
        const auto old = from.find(key);
        const auto now = to.find(key);
        if (old != from.end() && now != to.end() && old->second == now->second)
            continue;
        const char sign = old == from.end() ? '+' : now == to.end() ? '-' : '~';
        Json patch = Json::array();
        if (sign == '~')
            patch = Json::diff(policy_json(session, old->second), policy_json(session, now->second));
        json.push_back({{"app", key.app}, {"policy", key.policy}, {"change", std::string(1, sign)}, {"patch", patch}});
        if (!options.json)
            fmt::print("{} {}/{}{}\n", sign, key.app, key.policy,
                       sign == '~' ? fmt::format("  {} differences", patch.size()) : "");
    }
    if (options.json)
        print_json(json);
    return exit_ok;
}

struct DiffArguments {
    std::vector<std::string> paths;
    std::optional<uint64_t> from;
    std::optional<uint64_t> to;
};

int run_diff(const Options &options, FleetSession &session, const DiffArguments &arguments)
{
    const std::vector<ManifestPtr> history = session.store().history(session.group());
    const auto at = [&](const std::optional<uint64_t> &sequence) {
        if (sequence)
            return find_revision(history, *sequence)->policies;
        return history.empty() ? PolicySet() : history.back()->policies;
    };
    const PolicySet from = at(arguments.from);
    PolicySet to = at(arguments.to);
    if (!arguments.paths.empty())
        for (const auto &[key, entry] : put_objects(session, read_policies(arguments.paths, options.app), 0))
            to[key] = entry;
    return print_differences(options, session, from, to);
}

} // namespace

void add_fleet_changes(const FleetLine &line)
{
    const Options &options = line.line.options;
    const auto paths = std::make_shared<std::vector<std::string>>();
    const auto apply_arguments = std::make_shared<ChangeArguments>();
    CLI::App *const apply =
        line.app.add_subcommand("apply", "Add policies to the group, or replace those with their ids");
    apply->add_option("FILE", *paths, "A policy, or an array of policies, as JSON; - is standard input")->required();
    add_change_options(apply, *apply_arguments);
    apply->add_option("--expire", apply_arguments->expire,
                      "Seconds after which nodes remove the policies by themselves");
    line.when_given(apply, [&options, paths, apply_arguments](FleetSession &session) {
        const PolicySet set = put_objects(session, read_policies(*paths, options.app), apply_arguments->expire);
        return run_change(options, session, *apply_arguments, [&](PolicySet &policies) {
            for (const auto &[key, entry] : set)
                policies[key] = entry;
        });
    });

    const auto ids = std::make_shared<std::vector<uint16_t>>();
    const auto delete_arguments = std::make_shared<ChangeArguments>();
    CLI::App *const remove = line.app.add_subcommand("delete", "Remove policies from the group");
    remove->add_option("ID", *ids, "Policies")->required();
    add_change_options(remove, *delete_arguments);
    line.when_given(remove, [&options, ids, delete_arguments](FleetSession &session) {
        return run_change(options, session, *delete_arguments, [&](PolicySet &policies) {
            for (const uint16_t id : *ids)
                if (policies.erase({options.app, id}) == 0)
                    throw tools::BadInput(fmt::format("the group has no policy {} of application {}", id, options.app));
        });
    });

    line.when_given(line.app.add_subcommand("confirm", "Keep a revision that was applied with --confirm"),
                    [&options](FleetSession &session) { return run_confirm(options, session); });

    const auto to = std::make_shared<std::optional<uint64_t>>();
    CLI::App *const undo = line.app.add_subcommand("undo", "Make an older state a new revision");
    undo->add_option("--to", *to, "The revision; the one before the newest change unless given");
    line.when_given(undo, [&options, to](FleetSession &session) { return run_undo(options, session, *to); });

    const auto diff_arguments = std::make_shared<DiffArguments>();
    CLI::App *const diff =
        line.app.add_subcommand("diff", "What apply would change, or what changed between revisions");
    diff->add_option("FILE", diff_arguments->paths, "Policies as for apply");
    diff->add_option("--from", diff_arguments->from, "Older revision; the newest unless given");
    diff->add_option("--to", diff_arguments->to, "Later revision; the newest unless given");
    line.when_given(diff, [&options, diff_arguments](FleetSession &session) {
        return run_diff(options, session, *diff_arguments);
    });
}

} // namespace zelctl
