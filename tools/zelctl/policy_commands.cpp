// zelctl policy: whole policies, from files to the service and back.
#include "platform/reference/tlv_check.h"
#include "platform/tlv_array.h"
#include "tools/common/json_reader.hpp"
#include "tools/common/json_writer.hpp"
#include "tools/common/message.hpp"
#include "tools/zelctl/connection.hpp"

#include <deque>
#include <memory>
#include <optional>
#include <set>

namespace zelctl {
namespace {

using tools::Document;
using tools::Graph;
using tools::Input;
using tools::Place;

// Reads policies that go out in one message, so that all of them are applied or
// none: ids of policies, matches and actions have one meaning across all files.
class PolicyFiles {
public:
    explicit PolicyFiles(uint32_t app) : reader_(app) {}

    // A file holds one policy, or an array of them.
    void read(const std::string &path)
    {
        const Document &document = documents_.emplace_back(tools::read_json_file(path));
        const Place root;
        const Input whole{document, document.root, root};
        if (document.root.kind != tools::Node::Kind::array)
            return read_policy(whole);
        for (std::size_t i = 0; i < document.root.children.size(); ++i) {
            const Place place = root.at(i);
            read_policy({document, document.root.children[i], place});
        }
    }

    std::size_t size() const { return policies_.size(); }
    const zel_policy_t &front() const { return policies_.front().as<zel_policy_t>(); }

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
        const Graph &policy = policies_.emplace_back(read_graph(reader_, ZEL_MAT_TYPE_POLICY, in));
        const uint16_t id = policy.as<zel_policy_t>().id;
        if (!ids_.insert(id).second)
            in.fail(fmt::format("policy {} has been given already", id));
        if (ids_.size() > UINT16_MAX)
            in.fail(fmt::format("one message takes at most {} policies", UINT16_MAX));
    }

    tools::JsonReader reader_;
    std::deque<Document> documents_; // a deque, because its members stay where they are
    std::vector<Graph> policies_;
    std::vector<zel_policy_t *> pointers_;
    std::set<uint16_t> ids_;
};

int run_apply(const Options &options, const std::vector<std::string> &paths, bool only_check)
{
    PolicyFiles files(options.app);
    for (const std::string &path : paths)
        files.read(path);
    const std::string subject =
        files.size() == 1 ? fmt::format("policy {}", files.front().id) : fmt::format("{} policies", files.size());
    if (only_check) {
        fmt::print("{} without fault\n", subject);
        return exit_ok;
    }
    if (files.size() == 0)
        throw tools::BadInput(paths.front() + ": holds no policy");

    Connection connection(options);
    const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
        if (files.size() == 1)
            return zel_policy_update(handle, &files.front(), service::op_code_set, msg);
        const zel_policy_list_t list = files.list();
        return zel_policy_list_update(handle, &list, service::op_code_set, msg);
    });
    return report(options, answer, subject + " applied");
}

int run_delete(const Options &options, uint16_t id)
{
    Connection connection(options);
    const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
        return zel_policy_delete(handle, id, service::op_code_remove, msg);
    });
    return report(options, answer, fmt::format("policy {} deleted", id));
}

std::string show_as_table(const zel_policy_list_t &list)
{
    std::string table =
        fmt::format("{:>6} {:>8} {:>10} {:>8} {:>12}\n", "policy", "version", "mode", "pairs", "interfaces");
    for (uint32_t i = 0; i < list.num_policy; ++i) {
        const zel_policy_t &policy = *list.policies[i];
        const tools::Json mode = tools::Names<tools::op_modes>::show(policy.op_mode);
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

tools::Message decode_answer(const Options &options, const Answer &answer)
{
    try {
        tools::Message message = decode_message(tools::list_elements(answer.body(), "answer"));
        if (message.graph.mat_type() != ZEL_MAT_TYPE_POLICY_LIST)
            throw tools::BadInput("answer: no policies in it");
        return message;
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
    const tools::Message message = decode_answer(options, answer);
    const auto &list = message.graph.as<zel_policy_list_t>();
    if (id && list.num_policy == 1)
        fmt::print("{}\n", tools::JsonWriter().write(*list.policies[0]).dump(2));
    else if (options.json || id)
        fmt::print("{}\n", tools::write_graph(message.graph).dump(2));
    else
        fmt::print("{}", show_as_table(list));
    return exit_ok;
}

void add_file_command(const CommandLine &line, CLI::App *parent, const std::string &name, const std::string &help,
                      bool only_check)
{
    const auto paths = std::make_shared<std::vector<std::string>>();
    CLI::App *const command = parent->add_subcommand(name, help);
    command->add_option("FILE", *paths, "A policy, or an array of policies, as JSON; - is standard input")->required();
    when_given(line, command,
               [&options = line.options, paths, only_check] { return run_apply(options, *paths, only_check); });
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
