#include "tools/zelctl/request.hpp"

#include "tools/json/names.hpp"
#include "tools/json/reader.hpp"

#include <fmt/core.h>

namespace zelctl {
namespace {

// An argument that is a number or the name of one.
uint32_t named(const std::string &option, const std::string &text, tools::Names names)
{
    tools::Node node;
    node.kind = tools::Node::Kind::text;
    node.text = text;
    uint32_t value = 0;
    if (!tools::read_named(node, names, UINT32_MAX, value))
        throw CLI::ValidationError(option,
                                   fmt::format("\"{}\" is not {}", text, tools::expected_named(names, UINT32_MAX)));
    return value;
}

// Whether the user has to say which policy the request is about.
bool is_about_one_policy(uint32_t api_type)
{
    return api_type != ZEL_API_POLICY_LIST_UPDATE && api_type != ZEL_API_POLICY_UPDATE &&
           api_type != ZEL_API_STATS_PULL;
}

} // namespace

void add_request_options(CLI::App *subcommand, RequestArguments &arguments)
{
    subcommand->add_option("--policy", arguments.policy, "The policy that the request is about")->type_name("ID");
    subcommand->add_option("--op", arguments.operation, "What to do with the object: set or remove")
        ->type_name("OP")
        ->capture_default_str();
}

tools::Message make_request(const RequestArguments &arguments, uint32_t app)
{
    tools::Message message;
    zel_kob_header_t &header = message.header;
    header.api_type = named("KIND", arguments.kind, tools::request_kind_names);
    header.app_type = app;
    header.op_code = header.api_type == ZEL_API_STATS_PULL ? service::op_code_stats
                                                           : named("--op", arguments.operation, tools::op_codes);
    header.policy_id = arguments.policy.value_or(0);
    const zel::wire::Record *const object = zel::wire::object_of(get_mat_obj_type(header.api_type));
    if (object == nullptr)
        throw CLI::ValidationError("KIND", "there is no such kind of request");
    if (is_about_one_policy(header.api_type) && !arguments.policy)
        throw CLI::ValidationError("--policy", fmt::format("{} is about one policy: which?", arguments.kind));

    // A delete is complete without a policy's content.
    if (header.api_type == ZEL_API_POLICY_DELETE && arguments.file.empty())
        return message;
    if (arguments.file.empty())
        throw CLI::ValidationError("FILE", fmt::format("{} needs a file with its object", arguments.kind));
    const tools::Document document = tools::read_json_file(arguments.file);
    tools::JsonReader reader(app);
    message.graph = read_graph(reader, *object, document);
    if (header.api_type == ZEL_API_POLICY_UPDATE && !arguments.policy)
        header.policy_id = message.graph.as<zel_policy_t>().id;
    return message;
}

} // namespace zelctl
