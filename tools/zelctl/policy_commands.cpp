// zelctl policy: applies, checks, deletes and shows whole policies.
#include "tools/json/names.hpp"
#include "tools/json/progress.hpp"
#include "tools/json/reader.hpp"
#include "tools/json/writer.hpp"
#include "tools/message/message.hpp"
#include "tools/zelctl/connection.hpp"
#include "tools/zelctl/output.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <deque>
#include <fmt/core.h>

#include <memory>
#include <optional>
#include <set>

namespace zelctl {
namespace {

using tools::Document;
using tools::Graph;
using tools::Input;
using tools::JsonPath;

// Policies are sent in one request, or in one request each.  All policies of a request
// are applied or none, and an id means one match and one action in all of them.
enum class Requests { one, one_each };

class PolicyFiles {
public:
    PolicyFiles(uint32_t app, Requests requests) : app_(app), requests_(requests), reader_(app) {}

    // A file holds one policy, or an array of them.
    void read(const std::string &path)
    {
        const Document &document = documents_.emplace_back(tools::read_json_file(path));
        const JsonPath root;
        const Input whole{document, document.root, root};
        if (document.root.kind != tools::Node::Kind::array)
            return read_policy(whole);
        for (std::size_t i = 0; i < document.root.children.size(); ++i) {
            const JsonPath path_of_policy = root.at(i);
            read_policy({document, document.root.children[i], path_of_policy});
        }
    }

    std::size_t size() const { return policies_.size(); }
    const zel_policy_t &at(std::size_t i) const { return policies_.at(i).as<zel_policy_t>(); }

    zel_policy_list_t list()
    {
        pointers_.clear();
        for (const Graph &policy : policies_)
            pointers_.push_back(&policy.as<zel_policy_t>());
        return {static_cast<uint16_t>(pointers_.size()), pointers_.data()};
    }

private:
    void read_policy(const Input &in)
    {
        if (requests_ == Requests::one_each)
            reader_ = tools::JsonReader(app_);
        const Graph &policy = policies_.emplace_back(read_graph(reader_, zel::wire::policy, in));
        const uint16_t id = policy.as<zel_policy_t>().id;
        if (!ids_.insert(id).second)
            in.fail(fmt::format("policy {} has been given already", id));
        if (ids_.size() > UINT16_MAX)
            in.fail(fmt::format("one message takes at most {} policies", UINT16_MAX));
    }

    uint32_t app_;
    Requests requests_;
    tools::JsonReader reader_;
    std::deque<Document> documents_; // a deque, because its members stay where they are
    std::vector<Graph> policies_;
    std::vector<zel_policy_t *> pointers_;
    std::set<uint16_t> ids_;
};

struct ApplyArguments {
    std::vector<std::string> paths;
    bool only_check = false;
    bool each = false;
};

int apply_each(const Options &options, const PolicyFiles &files)
{
    Connection connection(options);
    tools::Progress progress("applying policies", files.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
            return zel_policy_update(handle, &files.at(i), service::op_code_set, msg);
        });
        if (const int code = report(options, answer, fmt::format("policy {} applied", files.at(i).id)); code != exit_ok)
            return code;
        progress.reached(i + 1);
    }
    return exit_ok;
}

int apply_together(const Options &options, PolicyFiles &files)
{
    Connection connection(options);
    const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
        const zel_policy_list_t list = files.list();
        return zel_policy_list_update(handle, &list, service::op_code_set, msg);
    });
    return report(options, answer, fmt::format("{} policies applied", files.size()));
}

int run_apply(const Options &options, const ApplyArguments &arguments)
{
    PolicyFiles files(options.app, arguments.each ? Requests::one_each : Requests::one);
    for (const std::string &path : arguments.paths)
        files.read(path);
    if (files.size() == 0)
        throw tools::BadInput(arguments.paths.front() + ": holds no policy");
    if (!arguments.only_check)
        return files.size() == 1 || arguments.each ? apply_each(options, files) : apply_together(options, files);
    fmt::print("{} without fault\n",
               files.size() == 1 ? fmt::format("policy {}", files.at(0).id) : fmt::format("{} policies", files.size()));
    return exit_ok;
}

int run_delete(const Options &options, uint16_t id)
{
    Connection connection(options);
    const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
        return zel_policy_delete(handle, id, service::op_code_remove, msg);
    });
    return report(options, answer, fmt::format("policy {} deleted", id));
}

std::string show_as_table(const std::vector<tools::Message> &policies)
{
    std::string table =
        fmt::format("{:>6} {:>8} {:>10} {:>8} {:>12}\n", "policy", "version", "mode", "pairs", "interfaces");
    for (const tools::Message &message : policies) {
        const auto &policy = message.graph.as<zel_policy_t>();
        const tools::Json mode = tools::show_named(policy.op_mode, tools::op_modes);
        table += fmt::format("{:>6} {:>8} {:>10} {:>8} {:>12}\n", policy.id, policy.version,
                             mode.is_string() ? mode.get<std::string>() : mode.dump(),
                             policy.match_action_pair_group.num_pair, policy.if_group.num_if);
    }
    return table;
}

std::string show_request(const Options &options, std::optional<uint16_t> id)
{
    const service::ShowRequest request{options.app, id ? *id : service::show_all};
    std::string array(TLV_ARRAY_OVERHEAD + tlv_size_get(sizeof request), '\0');
    tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), service::element_show, sizeof request,
                      &request, 0);
    return array;
}

// The policies of an answer, a message for each.
std::vector<tools::Message> decode_answer(const Options &options, const Answer &answer)
{
    try {
        std::vector<tools::Message> messages = tools::decode_messages(answer.body(), "answer");
        for (const tools::Message &message : messages)
            if (message.header.api_type != ZEL_API_POLICY_UPDATE)
                throw tools::BadInput("answer: a message that is no policy");
        return messages;
    } catch (const tools::BadInput &fault) {
        throw NoService(fmt::format("{}: {}", options.service, fault.what()));
    }
}

int run_show(const Options &options, std::optional<uint16_t> id)
{
    Connection connection(options);
    const Answer answer = connection.request(service::opcode_show, show_request(options, id));
    if (answer.refused())
        return report(options, answer, {});
    const std::vector<tools::Message> messages = decode_answer(options, answer);
    if (!options.json && !id) {
        fmt::print("{}", show_as_table(messages));
        return exit_ok;
    }
    // Each policy by itself, because an id may mean another object in another policy.
    tools::Json policies = tools::Json::array();
    for (const tools::Message &message : messages)
        policies.push_back(write_graph(message.graph));
    if (id && policies.size() == 1)
        print_json(policies[0], 2);
    else
        print_json(policies, 2);
    return exit_ok;
}

void add_file_command(const CommandLine &line, CLI::App *parent, const std::string &name, const std::string &help,
                      bool only_check)
{
    const auto arguments = std::make_shared<ApplyArguments>();
    arguments->only_check = only_check;
    CLI::App *const command = parent->add_subcommand(name, help);
    command->add_option("FILE", arguments->paths, "A policy, or an array of policies, as JSON; - is standard input")
        ->required();
    command->add_flag("--each", arguments->each,
                      "A request for each policy instead of one for all: policies may use an id differently, and "
                      "those before a refused one stay applied");
    when_given(line, command, [&options = line.options, arguments] { return run_apply(options, *arguments); });
}

} // namespace

void add_policy_commands(const CommandLine &line)
{
    CLI::App *const policy = line.app.add_subcommand("policy", "Apply, delete and show policies");
    policy->require_subcommand(1);
    add_file_command(line, policy, "apply", "Create the policies in files, or replace those with their ids", false);
    add_file_command(line, policy, "check", "Read files as apply does, and send nothing", true);

    const auto id = std::make_shared<uint16_t>();
    CLI::App *const remove = policy->add_subcommand("delete", "Delete a policy");
    remove->add_option("ID", *id, "The policy")->required();
    when_given(line, remove, [&options = line.options, id] { return run_delete(options, *id); });

    const auto wanted = std::make_shared<std::optional<uint16_t>>();
    CLI::App *const show = policy->add_subcommand("show", "List the policies, or show one as JSON");
    show->add_option("ID", *wanted, "The policy");
    when_given(line, show, [&options = line.options, wanted] { return run_show(options, *wanted); });
}

} // namespace zelctl
