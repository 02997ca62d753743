// zelctl policy check: all faults of files, and what can be applied but does nothing.
#include "tools/classify/check.hpp"
#include "tools/json/progress.hpp"
#include "tools/message/message.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/command.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/packet_words.hpp"
#include "tools/zelctl/policy_files.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <memory>

namespace zelctl {
namespace {

using classify::Finding;

struct CheckArguments {
    std::vector<std::string> paths;
    bool each = false;
    uint64_t max_message = uint64_t{16} * 1024 * 1024; // zeld's own default
};

// A finding and the policy that it is about.
struct Found {
    uint16_t policy;
    Finding finding;
};

// "pair 3", "pairs 3 and 5", "pairs 3, 5 and 4 others"
std::string numbered(const char *noun, const std::vector<uint16_t> &ids)
{
    constexpr std::size_t most_named = 5;
    if (ids.size() == 1)
        return fmt::format("{} {}", noun, ids.front());
    const bool has_others = ids.size() > most_named;
    const std::size_t num_named = has_others ? most_named - 1 : ids.size();
    std::string text = fmt::format("{}{} {}", noun, std::string_view(noun) == "match" ? "es" : "s", ids.front());
    for (std::size_t i = 1; i < num_named; ++i)
        text += fmt::format("{}{}", i + 1 == num_named && !has_others ? " and " : ", ", ids[i]);
    return has_others ? fmt::format("{} and {} others", text, ids.size() - num_named) : text;
}

std::string words_of(const Finding &finding)
{
    std::string pair = fmt::format("pair {}", finding.pair);
    switch (finding.kind) {
    case Finding::Kind::policy_never:
        return fmt::format("no packet matches: {}", classify::text_of(finding.never));
    case Finding::Kind::match_never:
        if (!is_of_match(finding.never))
            return fmt::format("{} never matches: {}", pair, classify::text_of(finding.never));
        return fmt::format(
            "{} never matches: {}{}", finding.kills_pair ? pair : fmt::format("match {} of {}", finding.match, pair),
            classify::text_of(finding.never), finding.kills_pair ? fmt::format(" (match {})", finding.match) : "");
    case Finding::Kind::contradiction:
        return fmt::format("{} never matches: {} exclude each other", pair, numbered("match", finding.others));
    case Finding::Kind::covered:
        return fmt::format("{} never matches: {}{} all its packets", pair, numbered("pair", finding.others),
                           finding.others.size() == 1 ? " takes" : " together take");
    case Finding::Kind::redundant:
        return fmt::format("{} is redundant: without it, others such as pair {} do the same", pair,
                           finding.others.front());
    case Finding::Kind::undecided:
        return fmt::format("{} is not decided: that would take too many steps", pair);
    }
    return pair;
}

constexpr std::array kind_names{"policy_never", "match_never", "contradiction", "covered", "redundant", "undecided"};

std::string packet_of(const Finding &finding)
{
    return finding.witness ? show_json(packet_to_json(*finding.witness)) : std::string();
}

tools::Json to_json(const Found &found)
{
    const Finding &finding = found.finding;
    tools::Json json{{"policy", found.policy}, {"kind", kind_names.at(static_cast<std::size_t>(finding.kind))}};
    if (finding.kind != Finding::Kind::policy_never)
        json["pair"] = finding.pair;
    if (finding.kind == Finding::Kind::match_never && is_of_match(finding.never))
        json["match"] = finding.match;
    if (!finding.others.empty())
        json[finding.kind == Finding::Kind::contradiction ? "matches" : "pairs"] = finding.others;
    json["text"] = words_of(finding);
    if (finding.witness)
        json["packet"] = packet_to_json(*finding.witness);
    return json;
}

// ---- Sizes of messages

std::size_t size_of(uint32_t app, uint32_t api_type, void *object)
{
    tools::Message message;
    message.header = {api_type, app, 0, service::op_code_set};
    message.graph = tools::Graph(get_mat_obj_type(api_type), object);
    const std::size_t size = encode_message(message).size();
    message.graph.release();
    return size;
}

// What the service would refuse for its size, in words.
std::vector<std::string> too_large(const Options &options, const CheckArguments &arguments, const PolicyFiles &files)
{
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::size_t size = size_of(options.app, ZEL_API_POLICY_UPDATE, &files.at(i));
        if (size + ZEL_RESP_HDR_SIZE > arguments.max_message)
            texts.push_back(fmt::format("{}: policy {} takes {} bytes as a message, and the service {} with "
                                        "--max-message {}",
                                        files.file_of(i), files.at(i).id, size,
                                        arguments.max_message - ZEL_RESP_HDR_SIZE, arguments.max_message));
    }
    return texts;
}

// ---- The command

void print_text(const std::vector<std::string> &faults, const std::vector<Found> &found, const PolicyFiles &files)
{
    constexpr std::size_t most_faults = 1000;
    for (std::size_t i = 0; i < faults.size() && i < most_faults; ++i)
        fmt::print(stderr, "zelctl: {}\n", tools::safe_text(faults[i]));
    if (faults.size() > most_faults)
        fmt::print(stderr, "zelctl: and {} more faults\n", faults.size() - most_faults);
    for (const Found &one : found) {
        const std::string packet = packet_of(one.finding);
        fmt::print("policy {}: {}{}\n", one.policy, words_of(one.finding), packet.empty() ? "" : "; packet " + packet);
    }
    if (!faults.empty())
        return;
    const std::string what =
        files.size() == 1 ? fmt::format("policy {}", files.at(0).id) : fmt::format("{} policies", files.size());
    fmt::print("{} without fault{}\n", what, found.empty() ? "" : fmt::format(", {}", plural(found.size(), "finding")));
}

void print_as_json(const std::vector<std::string> &faults, const std::vector<Found> &found)
{
    tools::Json json{{"faults", faults}, {"findings", tools::Json::array()}};
    for (const Found &one : found)
        json["findings"].push_back(to_json(one));
    print_json(json);
}

int run_check(const Options &options, const CheckArguments &arguments)
{
    std::vector<std::string> faults;
    PolicyFiles files(options.app, arguments.each ? Requests::one_each : Requests::one, &faults);
    for (const std::string &path : arguments.paths)
        files.read(path);
    if (files.size() == 0 && faults.empty())
        faults.push_back(arguments.paths.front() + ": holds no policy");
    std::vector<Found> found;
    {
        tools::Progress progress("checking policies", files.size());
        for (std::size_t i = 0; i < files.size(); ++i) {
            for (Finding &finding : classify::check(files.at(i)))
                found.push_back({files.at(i).id, std::move(finding)});
            progress.reached(i + 1);
        }
    }
    const std::vector<std::string> sizes = too_large(options, arguments, files);
    faults.insert(faults.end(), sizes.begin(), sizes.end());
    if (options.json)
        print_as_json(faults, found);
    else
        print_text(faults, found, files);
    if (!faults.empty())
        return exit_bad_input;
    return found.empty() ? exit_ok : exit_found;
}

} // namespace

void add_check_command(const CommandLine &line, CLI::App *policy)
{
    const auto arguments = std::make_shared<CheckArguments>();
    CLI::App *const check = policy->add_subcommand(
        "check", "Say what is wrong with files: all faults, pairs that can never match, pairs that change nothing");
    check->add_option("FILE", arguments->paths, "A policy, or an array of policies, as JSON; - is standard input")
        ->required();
    check->add_flag("--each", arguments->each, "As apply --each: policies may use an id differently");
    check->add_option("--max-message", arguments->max_message, "The service's limit for a message")
        ->transform(CLI::AsSizeValue(false))
        ->type_name("SIZE")
        ->capture_default_str();
    when_given(line, check, [&options = line.options, arguments] { return run_check(options, *arguments); });
}

} // namespace zelctl
