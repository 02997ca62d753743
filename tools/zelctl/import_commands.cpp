// zelctl import: makes policies of rule sets in other formats.
#include "tools/json/reader.hpp"
#include "tools/json/writer.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/classbench.hpp"
#include "tools/zelctl/command.hpp"
#include "tools/zelctl/output.hpp"

#include <algorithm>
#include <fmt/core.h>

#include <memory>

namespace zelctl {
namespace {

struct ImportArguments {
    std::string file;
    uint16_t policy = 1;
    std::string actions;
    std::string output = "-";
};

// Without a file of actions, every rule sets VRF 1.
std::vector<zel_action_t> read_actions(const std::string &path)
{
    if (path.empty()) {
        zel_action_t action{};
        action.id = 1;
        action.type = ZEL_ACTION_TYPE_SET_VRF;
        action.param.set_vrf.vrf = 1;
        return {action};
    }
    const tools::Document document = tools::read_json_file(path);
    const tools::JsonPath root;
    const tools::Input whole{document, document.root, root};
    if (document.root.kind != tools::Node::Kind::array || document.root.children.empty())
        whole.expected("an array of actions");
    tools::JsonReader reader(0);
    std::vector<zel_action_t> actions(document.root.children.size());
    for (std::size_t i = 0; i < actions.size(); ++i) {
        const tools::JsonPath path_of_action = root.at(i);
        reader.read({document, document.root.children[i], path_of_action}, zel::wire::action, &actions[i]);
    }
    return actions;
}

int run_classbench(const Options &options, const ImportArguments &arguments)
{
    const std::vector<zel_action_t> actions = read_actions(arguments.actions);
    const std::vector<Rule> rules = read_classbench(tools::read_file(arguments.file), arguments.file);
    const tools::Graph policy = make_policy(rules, arguments.policy, options.app, actions, arguments.file);
    if (rules.empty())
        throw tools::BadInput(arguments.file + ": holds no rule");
    if (const auto number = std::ranges::count_if(rules, &Rule::has_flags); number != 0)
        fmt::print(stderr,
                   "zelctl: {}: TCP flags of {} of {} rules cannot be said in a policy; their pairs match packets "
                   "with any flags\n",
                   tools::safe_text(arguments.file), number, rules.size());
    write_file(arguments.output, show_json(write_graph(policy), 2) + "\n");
    return exit_ok;
}

} // namespace

void add_import_commands(const CommandLine &line)
{
    CLI::App *const import = line.app.add_subcommand("import", "Make a policy of another tool's rule set");
    import->require_subcommand(1);
    const auto arguments = std::make_shared<ImportArguments>();
    CLI::App *const classbench = import->add_subcommand("classbench", "A filter set in the ClassBench text format");
    classbench->add_option("FILE", arguments->file, "The filter set; - is standard input")->required();
    classbench->add_option("--policy", arguments->policy, "The policy's id")->type_name("ID")->capture_default_str();
    classbench->add_option("--actions", arguments->actions,
                           "A file with an array of actions as JSON, which the rules take in turn; without it every "
                           "rule sets VRF 1");
    classbench->add_option("-o,--output", arguments->output, "The policy file; - is standard output")
        ->capture_default_str();
    when_given(line, classbench, [&options = line.options, arguments] { return run_classbench(options, *arguments); });
}

} // namespace zelctl
