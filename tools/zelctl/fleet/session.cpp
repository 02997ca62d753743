#include "tools/zelctl/fleet/session.hpp"

#include "tools/json/document.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/connection.hpp"
#include "tools/zelctl/output.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>

namespace zelctl {

using namespace fleet;
using Clock = std::chrono::steady_clock;

namespace {

std::optional<SecretKey> read_key(const std::string &path)
{
    if (path.empty())
        return std::nullopt;
    std::string hex = tools::read_file(path);
    std::erase_if(hex, [](unsigned char c) { return std::isspace(c) != 0; });
    return secret_key_from_hex(hex);
}

std::chrono::milliseconds left_until(Clock::time_point end)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
}

Clock::time_point after(double seconds)
{
    return Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

// What a status says about a revision; nothing as long as it is not settled.
std::optional<NodeResult> settled(const Status &status, const std::string &group, const Revision &revision,
                                  const std::string &mark)
{
    const GroupStatus *const found = group_of(status, group);
    if (found == nullptr || found->verdict == Verdict::pending || found->verdict == Verdict::none)
        return std::nullopt;
    const NodeResult result{NodeResult::Kind::done, std::string(name_of(found->verdict)), found->text};
    if (found->verdict == Verdict::rejected) // it does not say of which revision, but of which bytes
        return found->text.ends_with(mark)
                   ? std::optional(NodeResult{NodeResult::Kind::refused, result.verdict, result.text})
                   : std::nullopt;
    if (found->wanted.epoch != revision.epoch || found->wanted.sequence < revision.sequence)
        return std::nullopt;
    if (found->wanted.sequence > revision.sequence)
        return NodeResult{NodeResult::Kind::done, "overtaken", "by revision " + found->wanted.text()};
    const bool is_done = found->verdict == Verdict::applied || found->verdict == Verdict::held;
    return NodeResult{is_done ? NodeResult::Kind::done : NodeResult::Kind::refused, result.verdict, result.text};
}

} // namespace

FleetSession::FleetSession(const FleetOptions &options)
    : options_(options), bus_(options.servers, Bus::Start::connected), key_(read_key(options.key_file)),
      store_(bus_, key_ ? &*key_ : nullptr)
{
    bus_.subscribe("zel.report.*");
}

Change FleetSession::change(const std::string &comment) const { return {options_.group, options_.author, comment, {}}; }

std::string FleetSession::encode(const Manifest &manifest) const
{
    return encode_manifest(manifest, key_ ? &*key_ : nullptr);
}

std::set<std::string> FleetSession::nodes()
{
    std::set<std::string> names;
    for (const Status &status : store_.statuses())
        if (group_of(status, options_.group) != nullptr)
            names.insert(status.node);
    return names;
}

// The statuses arrive by themselves.  At the end, those that the store has are looked at, too:
// a message may have been lost on its way here.
Results FleetSession::await(const Manifest &manifest, const std::set<std::string> &nodes, std::size_t stop_on)
{
    Results results;
    const std::string mark = rejection_mark(encode(manifest));
    std::size_t refused = 0;
    const auto take = [&](const Status &status) {
        const std::optional<NodeResult> result =
            nodes.contains(status.node) ? settled(status, options_.group, manifest.revision, mark) : std::nullopt;
        if (result && results.try_emplace(status.node, *result).second)
            refused += result->kind == NodeResult::Kind::refused ? 1 : 0;
    };
    const auto is_over = [&] { return results.size() == nodes.size() || refused >= stop_on; };
    const Clock::time_point end = after(options_.wait);
    Clock::time_point look = after(2);
    while (!is_over() && Clock::now() < end) {
        if (const std::optional<BusMessage> message = bus_.take(std::min(left_until(end), left_until(look))))
            try {
                take(decode_status(message->data, message->subject));
            } catch (const BadData &) { // not a status
            }
        if (Clock::now() < look)
            continue;
        for (const Status &status : store_.statuses())
            take(status);
        look = after(2);
    }
    for (const std::string &node : nodes)
        results.try_emplace(node, NodeResult{NodeResult::Kind::silent, "silent", "no answer in time"});
    return results;
}

Answers FleetSession::ask(const std::string &question, const std::set<std::string> &nodes)
{
    std::map<std::string, std::string> waiting; // nodes by the subject of their answer, which no other node can guess
    for (const std::string &node : nodes) {
        const std::string subject = fmt::format("{}.{}", bus_.inbox(), random_id());
        waiting[subject] = node;
        bus_.publish(ask_subject(node), question, subject);
    }
    Answers answers;
    const Clock::time_point end = after(options_.wait);
    while (!waiting.empty() && Clock::now() < end) {
        const std::optional<BusMessage> message = bus_.take(left_until(end));
        const auto found = message ? waiting.find(message->subject) : waiting.end();
        if (found == waiting.end())
            continue;
        const std::string node = found->second;
        waiting.erase(found);
        if (message->status == 503) // nobody listens
            continue;
        Json answer = Json::parse(message->data, nullptr, false);
        answers[node] = answer.is_object() ? std::move(answer) : Json{{"error", "the answer cannot be read"}};
    }
    return answers;
}

std::string error_in(const Json &answer)
{
    if (!answer.contains("error"))
        return {};
    const Json &error = answer.at("error");
    const std::string text = error.is_string() ? error.get<std::string>() : std::string();
    return text.empty() ? "an error without text" : text;
}

ExitCode exit_code_of(const Results &results)
{
    const auto count = [&](NodeResult::Kind kind) {
        return std::count_if(results.begin(), results.end(), [&](const auto &one) { return one.second.kind == kind; });
    };
    if (count(NodeResult::Kind::refused) != 0)
        return count(NodeResult::Kind::done) != 0 ? exit_some : exit_none;
    return results.empty() || count(NodeResult::Kind::silent) != 0 ? exit_silent : exit_ok;
}

void print_results(const Options &options, const std::string &group, const Revision &revision, const Results &results)
{
    std::map<std::string, uint32_t> counts;
    Json nodes = Json::array();
    for (const auto &[node, result] : results) {
        ++counts[result.verdict];
        nodes.push_back({{"node", node}, {"verdict", result.verdict}, {"text", result.text}});
    }
    if (options.json) {
        const Json json{{"group", group},
                        {"epoch", revision.epoch},
                        {"revision", revision.sequence},
                        {"counts", counts},
                        {"nodes", std::move(nodes)}};
        return print_json(json);
    }
    constexpr std::size_t most_shown = 20; // without fault
    for (const auto &[node, result] : results)
        if (results.size() <= most_shown || result.verdict != "applied")
            fmt::print("{:<24} {:<10} {}\n", node, result.verdict, tools::safe_text(result.text));
    std::string summary;
    for (const auto &[verdict, number] : counts)
        summary += fmt::format(", {} {}", number, verdict);
    fmt::print("group {}, revision {}: {}{}\n", group, revision.sequence, plural(results.size(), "node"), summary);
}

const GroupStatus *group_of(const Status &status, const std::string &group)
{
    for (const GroupStatus &one : status.groups)
        if (one.group == group)
            return &one;
    return nullptr;
}

uint64_t wall_ms()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

std::string age_text(uint64_t time_ms)
{
    const uint64_t now = wall_ms();
    return fmt::format("{} s", now > time_ms ? (now - time_ms) / 1000 : 0);
}

} // namespace zelctl
