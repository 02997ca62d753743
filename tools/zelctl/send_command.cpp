// zelctl send: any kind of request, from a file with its object.
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/request.hpp"
#include "tools/zelctl/statistics.hpp"

#include "tools/json/names.hpp"

#include <fmt/core.h>

#include <memory>

namespace zelctl {
namespace {

int run_send(const Options &options, const RequestArguments &arguments)
{
    const tools::Message message = make_request(arguments, options.app);
    const zel_kob_header_t &header = message.header;
    Connection connection(options);
    const Answer answer = connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
        uint32_t token = 0;
        send_to_zel(&token, header.api_type, handle, header.policy_id, message.graph.root(), header.op_code, msg);
        return token;
    });
    if (header.api_type != ZEL_API_STATS_PULL || answer.refused())
        return report(options, answer, answer.text.empty() ? "done" : answer.text);
    const std::vector<Row> rows = make_rows(read_statistics(answer), {});
    if (options.json)
        print_json(to_json(rows));
    else
        fmt::print("{}", show_as_table(rows));
    return exit_ok;
}

std::string kinds()
{
    std::string text;
    for (const tools::Name &kind : tools::request_kind_names)
        text += fmt::format("\n  {}", kind.name);
    return text;
}

} // namespace

void add_send_command(const CommandLine &line)
{
    const auto arguments = std::make_shared<RequestArguments>();
    CLI::App *const send = line.app.add_subcommand("send", "Send a request of any kind");
    send->add_option("KIND", arguments->kind, "The kind of request, see below")->required();
    send->add_option("FILE", arguments->file, "The object as JSON; - is standard input.  policy_delete needs none");
    add_request_options(send, *arguments);
    send->footer("Kinds of request:" + kinds() + "\n\n" + line.app.get_footer());
    when_given(line, send, [&options = line.options, arguments] { return run_send(options, *arguments); });
}

} // namespace zelctl
