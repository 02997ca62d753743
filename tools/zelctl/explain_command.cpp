// zelctl explain: which pairs take a packet, and why those above do not.
#include "tools/classify/explain.hpp"
#include "tools/json/bad_input.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/packet_file.hpp"
#include "tools/zelctl/packet_words.hpp"
#include "tools/zelctl/policy_files.hpp"
#include "tools/zelctl/policy_text.hpp"
#include "tools/zelctl/records.hpp"
#include "tools/zelctl/service_policies.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <memory>

namespace zelctl {
namespace {

using service::Reason;

struct ExplainArguments {
    std::vector<std::string> words;
    std::string packets; // a file
    std::vector<std::string> files;
    std::optional<uint16_t> policy;
    bool is_short = false;
};

using Reasons = std::vector<Reason>;

// Where the explanations come from: the service, or files of policies.
class Source {
public:
    virtual ~Source() = default;
    virtual Reasons explain(const service::PacketHeader &packet) = 0;
};

class ServiceSource : public Source {
public:
    ServiceSource(const Options &options, std::optional<uint16_t> policy)
        : connection_(options), app_(options.app), policy_(policy)
    {}

    Reasons explain(const service::PacketHeader &packet) override
    {
        const service::ExplainRequest request{app_, policy_ ? *policy_ : service::show_all, packet};
        const Answer answer =
            accepted(connection_.request(service::opcode_explain, one_record(service::element_explain, request)));
        return read_records<Reason>(answer, service::element_reason);
    }

private:
    Connection connection_;
    uint32_t app_;
    std::optional<uint16_t> policy_;
};

class FileSource : public Source {
public:
    FileSource(const Options &options, const ExplainArguments &arguments)
        : files_(PolicyFiles::read_either(options.app, arguments.files))
    {
        for (std::size_t i = 0; i < files_.size(); ++i)
            if (!arguments.policy || *arguments.policy == files_.at(i).id)
                policies_.push_back({&files_.at(i), classify::Classifier(files_.at(i))});
        if (policies_.empty())
            throw tools::BadInput(arguments.files.front() + ": holds no such policy");
    }

    Reasons explain(const service::PacketHeader &packet) override
    {
        Reasons reasons;
        for (const auto &[policy, classifier] : policies_)
            for (classify::Explanation explanation(*policy, classifier, packet); !explanation.is_done();)
                reasons.push_back(explanation.next());
        return reasons;
    }

private:
    struct Compiled {
        const zel_policy_t *policy;
        classify::Classifier classifier;
    };
    PolicyFiles files_;
    std::vector<Compiled> policies_;
};

bool is_about_pair(const Reason &reason)
{
    switch (reason.verdict) {
    case service::verdict_took:
    case service::verdict_field:
    case service::verdict_label:
        return true;
    case service::verdict_never:
        return !is_of_policy(static_cast<classify::Never>(reason.field));
    default:
        return false;
    }
}

bool is_about_match(const Reason &reason)
{
    return reason.verdict == service::verdict_field || reason.verdict == service::verdict_label ||
           (reason.verdict == service::verdict_never && is_of_match(static_cast<classify::Never>(reason.field)));
}

std::string show_reason(const Reason &reason)
{
    const std::string text = tools::safe_text(text_of(reason));
    return is_about_pair(reason) ? fmt::format("pair {}: {}", reason.pair_id, text) : text;
}

// The reasons of a policy; of a short answer, the last one.
void print_policy(std::span<const Reason> reasons, const ExplainArguments &arguments, std::size_t width)
{
    fmt::print("policy {}\n", reasons.front().policy_id);
    for (const Reason &reason : arguments.is_short ? reasons.last(1) : reasons)
        fmt::print("{}\n",
                   wrapped((reason.verdict == service::verdict_took ? "* " : "  ") + show_reason(reason), width, 6));
}

tools::Json to_json(const Reason &reason)
{
    tools::Json json{{"policy", reason.policy_id}, {"took", reason.verdict == service::verdict_took}};
    if (is_about_pair(reason))
        json["pair"] = reason.pair_id;
    if (is_about_match(reason))
        json["match"] = reason.match_id;
    json["reason"] = text_of(reason);
    return json;
}

void print_answer(const Options &options, const ExplainArguments &arguments, const service::PacketHeader &packet,
                  const Reasons &reasons)
{
    if (options.json) {
        tools::Json json{{"packet", packet_to_json(packet)}, {"reasons", tools::Json::array()}};
        for (const Reason &reason : reasons)
            json["reasons"].push_back(to_json(reason));
        return print_json(json);
    }
    if (!arguments.packets.empty())
        fmt::print("packet {}\n", show_json(packet_to_json(packet)));
    if (reasons.empty())
        fmt::print("there is no policy\n");
    for (std::span<const Reason> rest(reasons); !rest.empty();) {
        const auto end = std::find_if(rest.begin(), rest.end(),
                                      [&](const Reason &reason) { return reason.policy_id != rest.front().policy_id; });
        const auto number = static_cast<std::size_t>(end - rest.begin());
        print_policy(rest.first(number), arguments, terminal_width());
        rest = rest.subspan(number);
    }
}

int run_explain(const Options &options, const ExplainArguments &arguments)
{
    std::vector<service::PacketHeader> packets;
    if (!arguments.words.empty())
        packets.push_back(read_packet(arguments.words));
    else if (!arguments.packets.empty())
        packets = read_packet_file(arguments.packets);
    else
        throw CLI::ValidationError("PACKET", "say which packet: FIELD=VALUE ..., a JSON object, or --packets FILE");
    std::unique_ptr<Source> source;
    if (arguments.files.empty())
        source = std::make_unique<ServiceSource>(options, arguments.policy);
    else
        source = std::make_unique<FileSource>(options, arguments);
    for (const service::PacketHeader &packet : packets)
        print_answer(options, arguments, packet, source->explain(packet));
    return exit_ok;
}

} // namespace

void add_explain_command(const CommandLine &line)
{
    const auto arguments = std::make_shared<ExplainArguments>();
    CLI::App *const explain = line.app.add_subcommand(
        "explain", "Say which pair of each policy takes a packet, and why those above it do not");
    explain->add_option("PACKET", arguments->words,
                        "FIELD=VALUE ..., such as dip=192.0.2.80 dport=443 protocol=tcp, or one JSON object; fields "
                        "that are left out are 0");
    explain->add_option("--packets", arguments->packets, "A file of packets, as traffic reads it; - is standard input")
        ->type_name("FILE");
    explain->add_option("--file", arguments->files, "Ask files of policies instead of the service")
        ->type_name("FILE")
        ->allow_extra_args(false);
    explain->add_option("--policy", arguments->policy, "Only this policy")->type_name("ID");
    explain->add_flag("--short", arguments->is_short, "Only the pair that takes the packet");
    when_given(line, explain, [&options = line.options, arguments] { return run_explain(options, *arguments); });
}

} // namespace zelctl
