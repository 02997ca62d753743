// zelctl fleet nodes, status, watch, log, drift, stats, retry: commands that look, or ask nodes.
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/fleet/commands.hpp"
#include "tools/zelctl/output.hpp"

#include <fmt/chrono.h>
#include <fmt/core.h>

#include <algorithm>
#include <chrono>

namespace zelctl {
namespace {

using namespace fleet;

Json revision_json(const Revision &revision) { return {{"epoch", revision.epoch}, {"sequence", revision.sequence}}; }

bool is_silent(const Status &status) { return wall_ms() > status.time + silent_ms; }

// How the nodes of a group stand with its newest revision, as if it had just been committed.
struct Standing {
    Revision newest;
    std::vector<Status> statuses; // of the group's nodes
    Results results;
};

Standing standing_of(FleetSession &session)
{
    Standing standing;
    if (const Current current = session.store().current(session.group()); current.manifest != nullptr)
        standing.newest = current.manifest->revision;
    for (Status &status : session.store().statuses()) {
        const GroupStatus *const group = group_of(status, session.group());
        if (group == nullptr)
            continue;
        NodeResult result{NodeResult::Kind::done, std::string(name_of(group->verdict)), group->text};
        if (is_silent(status))
            result = {NodeResult::Kind::silent, "silent", "last heard " + age_text(status.time) + " ago"};
        else if (group->verdict == Verdict::refused || group->verdict == Verdict::rejected ||
                 group->verdict == Verdict::reverted)
            result.kind = NodeResult::Kind::refused;
        else if (group->wanted != standing.newest || group->verdict == Verdict::pending)
            result = {NodeResult::Kind::silent, "behind", group->text};
        standing.results[status.node] = result;
        standing.statuses.push_back(std::move(status));
    }
    return standing;
}

int run_nodes(const Options &options, FleetSession &session, bool only_behind)
{
    const Standing standing = standing_of(session);
    Json json = Json::array();
    if (!options.json)
        fmt::print("{:<24} {:>8} {:>8} {:>8} {:>9}  {:<10} {}\n", "node", "age", "wanted", "applied", "policies",
                   "verdict", "text");
    for (const Status &status : standing.statuses) {
        const NodeResult &result = standing.results.at(status.node);
        if (only_behind && result.kind == NodeResult::Kind::done)
            continue;
        const GroupStatus &group = *group_of(status, session.group());
        json.push_back({{"node", status.node},
                        {"time", status.time},
                        {"service", status.has_service},
                        {"policies", status.policies},
                        {"fingerprint", status.fingerprint},
                        {"wanted", revision_json(group.wanted)},
                        {"applied", revision_json(group.applied)},
                        {"verdict", result.verdict},
                        {"text", result.text},
                        {"overridden", status.overridden}});
        std::string text = result.text;
        if (!status.overridden.empty())
            text += fmt::format(" ({} policies overridden by a later group)", status.overridden.size());
        if (!options.json)
            fmt::print("{:<24} {:>8} {:>8} {:>8} {:>9}  {:<10} {}\n", status.node, age_text(status.time),
                       group.wanted.text(), group.applied.text(), status.policies, result.verdict,
                       tools::safe_text(text));
    }
    if (options.json)
        print_json(json);
    return exit_code_of(standing.results);
}

int run_status(const Options &options, FleetSession &session)
{
    const Standing standing = standing_of(session);
    print_results(options, session.group(), standing.newest, standing.results);
    return exit_code_of(standing.results);
}

int run_watch(const Options &options, FleetSession &session, double seconds)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    std::map<std::string, GroupStatus> last;
    session.bus().subscribe(revision_subject(session.group()));
    while (seconds == 0 || Clock::now() < end) {
        const std::optional<BusMessage> message = session.bus().take(std::chrono::milliseconds(200));
        if (!message)
            continue;
        try {
            if (message->subject == revision_subject(session.group())) {
                const Manifest manifest = decode_manifest(message->data);
                if (options.json)
                    print_json({{"revision", manifest.revision.sequence}, {"author", manifest.author}});
                else
                    fmt::print("revision {} by {}: {}\n", manifest.revision.sequence, tools::safe_text(manifest.author),
                               tools::safe_text(manifest.comment));
            } else if (const Status status = decode_status(message->data, message->subject);
                       const GroupStatus *const group = group_of(status, session.group())) {
                if (last[status.node] == *group)
                    continue;
                last[status.node] = *group;
                if (options.json)
                    print_json({{"node", status.node},
                                {"applied", revision_json(group->applied)},
                                {"verdict", name_of(group->verdict)},
                                {"text", group->text}});
                else
                    fmt::print("{} revision {}: {} {}\n", status.node, group->wanted.text(), name_of(group->verdict),
                               tools::safe_text(group->text));
            }
        } catch (const BadData &) { // nothing that can be shown
        }
        finish_output();
    }
    return exit_ok;
}

int run_log(const Options &options, FleetSession &session)
{
    std::vector<ManifestPtr> history = session.store().history(session.group());
    std::reverse(history.begin(), history.end());
    Json json = Json::array();
    for (const ManifestPtr &manifest : history) {
        const std::string time =
            fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::gmtime(static_cast<std::time_t>(manifest->time)));
        json.push_back({{"revision", manifest->revision.sequence},
                        {"time", manifest->time},
                        {"author", manifest->author},
                        {"policies", manifest->policies.size()},
                        {"stage", manifest->stage},
                        {"confirm", manifest->confirm_s},
                        {"comment", manifest->comment}});
        if (options.json)
            continue;
        std::string kind;
        if (manifest->stage != whole_fleet)
            kind = fmt::format("[{}%] ", manifest->stage / 100.0);
        if (manifest->confirm_s != 0)
            kind = fmt::format("[to confirm in {} s] ", manifest->confirm_s);
        fmt::print("{:>6}  {} UTC  {:<24} {:>5} policies  {}{}\n", manifest->revision.sequence, time,
                   tools::safe_text(manifest->author), manifest->policies.size(), kind,
                   tools::safe_text(manifest->comment));
    }
    if (options.json)
        print_json(json);
    return exit_ok;
}

// Nodes that did not answer, or could not.
int exit_code_of_answers(const Answers &answers, const std::set<std::string> &nodes, bool is_bad(const Json &))
{
    Results results;
    for (const std::string &node : nodes) {
        const auto found = answers.find(node);
        results[node].kind = found == answers.end()  ? NodeResult::Kind::silent
                             : is_bad(found->second) ? NodeResult::Kind::refused
                                                     : NodeResult::Kind::done;
    }
    return exit_code_of(results);
}

std::vector<std::string> silent_among(const std::set<std::string> &nodes, const Answers &answers)
{
    std::vector<std::string> silent;
    for (const std::string &node : nodes)
        if (!answers.contains(node))
            silent.push_back(node);
    return silent;
}

bool has_error(const Json &answer) { return !error_in(answer).empty(); }

// What nodes said, with a line for those that are silent.
int print_answers(const Options &options, const Answers &answers, const std::set<std::string> &nodes,
                  std::string describe(const Json &), bool is_bad(const Json &))
{
    const std::vector<std::string> silent = silent_among(nodes, answers);
    if (options.json) {
        print_json({{"nodes", answers}, {"silent", silent}});
    } else {
        for (const auto &[node, answer] : answers)
            fmt::print("{:<24} {}\n", node, tools::safe_text(describe(answer)));
        for (const std::string &node : silent)
            fmt::print("{:<24} silent\n", node);
    }
    return exit_code_of_answers(answers, nodes, is_bad);
}

// A member that is no list counts as an empty one.
Json list_in(const Json &answer, const char *name)
{
    const auto found = answer.find(name);
    return found != answer.end() && found->is_array() ? *found : Json::array();
}

bool is_known(const Json &answer) { return answer.contains("known") && answer.at("known") == true; }

bool has_drift(const Json &answer)
{
    return has_error(answer) || !is_known(answer) || !list_in(answer, "missing").empty() ||
           !list_in(answer, "changed").empty() || !list_in(answer, "extra").empty();
}

std::string describe_drift(const Json &answer)
{
    if (has_error(answer))
        return error_in(answer);
    if (!is_known(answer))
        return "unknown: the service does not show its policies";
    if (!has_drift(answer))
        return "none";
    return fmt::format("missing {}, changed {}, extra {}", show_json(list_in(answer, "missing")),
                       show_json(list_in(answer, "changed")), show_json(list_in(answer, "extra")));
}

int run_drift(const Options &options, FleetSession &session)
{
    const std::set<std::string> nodes = session.nodes();
    return print_answers(options, session.ask("drift", nodes), nodes, describe_drift, has_drift);
}

std::string describe_retry(const Json &answer) { return has_error(answer) ? error_in(answer) : "tries again"; }

int run_retry(const Options &options, FleetSession &session)
{
    const std::set<std::string> nodes = session.nodes();
    return print_answers(options, session.ask("retry", nodes), nodes, describe_retry, has_error);
}

struct Sum {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t least = UINT64_MAX; // packets of one node
    uint64_t most = 0;
    uint64_t nodes = 0;
};

using Sums = std::map<std::pair<uint16_t, uint16_t>, Sum>; // by policy and pair

// Throws Json::exception, and then nothing was added.
void add_counters(Sums &sums, const Json &answer)
{
    Sums added = sums;
    for (const Json &one : list_in(answer, "counters")) {
        Sum &sum = added[{one.at("policy").get<uint16_t>(), one.at("pair").get<uint16_t>()}];
        const auto packets = one.at("packets").get<uint64_t>();
        sum.packets += packets;
        sum.bytes += one.at("bytes").get<uint64_t>();
        sum.least = std::min(sum.least, packets);
        sum.most = std::max(sum.most, packets);
        ++sum.nodes;
    }
    sums = std::move(added);
}

Json to_json(const Sums &sums)
{
    Json json = Json::array();
    for (const auto &[key, sum] : sums)
        json.push_back({{"policy_id", key.first},
                        {"match_action_pair_id", key.second},
                        {"packets", sum.packets},
                        {"bytes", sum.bytes},
                        {"nodes", sum.nodes},
                        {"least", sum.least},
                        {"most", sum.most}});
    return json;
}

void print_sums(const Sums &sums)
{
    fmt::print("{:>6} {:>6} {:>16} {:>16} {:>6} {:>14} {:>14}\n", "policy", "pair", "packets", "bytes", "nodes",
               "least", "most");
    for (const auto &[key, sum] : sums)
        fmt::print("{:>6} {:>6} {:>16} {:>16} {:>6} {:>14} {:>14}\n", key.first, key.second, sum.packets, sum.bytes,
                   sum.nodes, sum.least, sum.most);
}

int run_stats(const Options &options, FleetSession &session)
{
    const std::set<std::string> nodes = session.nodes();
    Answers answers = session.ask(fmt::format("stats\n{}", options.app), nodes);
    Sums sums;
    std::map<std::string, std::string> errors; // by node
    for (auto &[node, answer] : answers) {
        try {
            add_counters(sums, answer);
        } catch (const Json::exception &) {
            answer = {{"error", "the answer cannot be read"}};
        }
        if (has_error(answer))
            errors[node] = error_in(answer);
    }
    const std::vector<std::string> silent = silent_among(nodes, answers);
    if (options.json) {
        print_json({{"pairs", to_json(sums)}, {"errors", errors}, {"silent", silent}});
    } else {
        print_sums(sums);
        for (const auto &[node, error] : errors)
            fmt::print("{:<24} {}\n", node, tools::safe_text(error));
        for (const std::string &node : silent)
            fmt::print("{:<24} silent\n", node);
    }
    return exit_code_of_answers(answers, nodes, has_error);
}

} // namespace

void add_fleet_questions(const FleetLine &line)
{
    const Options &options = line.line.options;
    const auto only_behind = std::make_shared<bool>(false);
    CLI::App *const nodes = line.app.add_subcommand("nodes", "List the nodes of the group and how they stand");
    nodes->add_flag("--behind", *only_behind, "Only those that are not at the newest revision");
    line.when_given(
        nodes, [&options, only_behind](FleetSession &session) { return run_nodes(options, session, *only_behind); });

    const auto seconds = std::make_shared<double>(0);
    CLI::App *const watch = line.app.add_subcommand("watch", "Print revisions and verdicts as they come");
    watch->add_option("--seconds", *seconds, "End after so long; 0: when interrupted")->capture_default_str();
    line.when_given(watch,
                    [&options, seconds](FleetSession &session) { return run_watch(options, session, *seconds); });

    const auto add = [&](const char *name, const char *text, int (*run)(const Options &, FleetSession &)) {
        line.when_given(line.app.add_subcommand(name, text),
                        [&options, run](FleetSession &session) { return run(options, session); });
    };
    add("status", "Sum up how the group's nodes stand with its newest revision", run_status);
    add("log", "List the revisions of the group, newest first", run_log);
    add("drift", "Compare what services have with what their agents installed", run_drift);
    add("stats", "Sum the counters of all nodes, for each pair", run_stats);
    add("retry", "Let nodes try refused revisions again, and look at their services", run_retry);
}

} // namespace zelctl
