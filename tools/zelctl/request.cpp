#include "tools/zelctl/request.hpp"

#include "tools/json/field_notation.hpp"
#include "tools/json/json_reader.hpp"

namespace zelctl {
namespace {

// A number that may be written as its name.
template <const auto &Table> uint32_t named(const std::string &option, const std::string &text)
{
    tools::Node node;
    node.kind = tools::Node::Kind::text;
    node.text = text;
    uint32_t value = 0;
    if (!tools::Names<Table>::read(node, value))
        throw CLI::ValidationError(
            option, fmt::format("\"{}\" is not {}", text, tools::Names<Table>::template expected<uint32_t>()));
    return value;
}

// Whether the header's policy id follows from the request itself.
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
    header.api_type = named<tools::request_kind_names>("KIND", arguments.kind);
    header.app_type = app;
    header.op_code = header.api_type == ZEL_API_STATS_PULL ? service::op_code_stats
                                                           : named<tools::op_codes>("--op", arguments.operation);
    header.policy_id = arguments.policy.value_or(0);
    if (get_mat_obj_type(header.api_type) == ZEL_MAT_TYPE_NONE)
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
    message.graph = read_graph(reader, get_mat_obj_type(header.api_type), document);
    if (header.api_type == ZEL_API_POLICY_UPDATE && !arguments.policy)
        header.policy_id = message.graph.as<zel_policy_t>().id;
    return message;
}

} // namespace zelctl
