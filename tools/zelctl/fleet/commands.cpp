#include "tools/zelctl/fleet/commands.hpp"

#include "tools/zelctl/output.hpp"

#include <fmt/core.h>

#include <cstdlib>
#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

namespace zelctl {
namespace {

constexpr const char *help =
    "Policies for many machines.\n\n"
    "A fleet is a set of nodes: machines with an agent (zelagent) beside their service. Nodes belong to groups.\n"
    "A group has policies. Each change of them, with apply, delete or undo, is one revision, numbered from 1:\n"
    "all of its policies are taken over by a node, or none. The servers keep the last 64 revisions of a group.\n"
    "Agents follow their groups by themselves; a node that was away catches up. A node in several groups has\n"
    "the policies of all; where two groups have the same policy, the later one in its agent's options wins.\n"
    "After a change, zelctl waits and shows what each node has made of it: applied, refused with the service's\n"
    "text, or silent. nodes, status and watch show it at any time; drift compares with what services really have.\n"
    "Start with: zelctl fleet init; then zelctl fleet --group edge apply policy.json.\n"
    "Passwords are read from the environment alone, see the options of zelctl for NATS servers.";

std::string default_author()
{
    const char *const user = std::getenv("USER");
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    return fmt::format("{}@{}", user != nullptr ? user : "unknown", host);
}

// The secret key goes to a new file that nobody else can read.
int make_key(const Options &options, const std::string &path)
{
    const fleet::KeyPair pair = fleet::make_key_pair();
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const std::string hex = fleet::to_hex(pair.secret_key) + "\n";
    const bool is_written = file >= 0 && write(file, hex.data(), hex.size()) == static_cast<ssize_t>(hex.size());
    if (file >= 0)
        close(file);
    if (!is_written)
        throw OutputFailure(path + ": cannot be written, or exists");
    const std::string shown = fleet::to_hex(pair.public_key);
    if (options.json)
        print_json({{"public_key", shown}});
    else
        fmt::print("{}\n", shown);
    return exit_ok;
}

} // namespace

void add_fleet_commands(const CommandLine &line)
{
    CLI::App *const app = line.app.add_subcommand("fleet", help);
    app->require_subcommand(1);
    const auto options = std::make_shared<FleetOptions>();
    options->author = default_author();
    app->add_option("--servers", options->servers, "The fleet's servers, nats://HOST[:PORT][,HOST...] or tls://...")
        ->envname("ZEL_SERVERS")
        ->capture_default_str();
    app->add_option("--group", options->group, "The group of nodes that the command is about")
        ->envname("ZEL_GROUP")
        ->check([](const std::string &name) { return fleet::is_name(name) ? "" : name + " is not a name"; })
        ->capture_default_str();
    app->add_option("--author", options->author, "Who makes the change")->capture_default_str();
    app->add_option("--sign", options->key_file, "File of the secret key that signs revisions")
        ->envname("ZEL_FLEET_KEY");
    app->add_option("--wait", options->wait, "Seconds to wait for nodes")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    app->footer("Exit codes: 0 all nodes did; 10 some refused; 11 all that answered refused; 12 none refused and\n"
                "some, or all, are silent; 4 no servers, or somebody else changed the group; others as for zelctl.");
    const FleetLine fleet{line, *app, options};

    const auto replicas = std::make_shared<int>(1);
    CLI::App *const init = app->add_subcommand("init", "Make what the servers lack for a fleet; can be repeated");
    init->add_option("--replicas", *replicas, "Copies of everything, each on another server")
        ->check(CLI::IsMember({1, 3, 5}))
        ->capture_default_str();
    fleet.when_given(init, [&json = line.options.json, replicas](FleetSession &session) {
        const std::string epoch = session.store().init(*replicas);
        if (json)
            fmt::print("{}\n", fleet::Json{{"epoch", epoch}, {"replicas", *replicas}}.dump());
        else
            fmt::print("ready, epoch {}\n", epoch);
        return exit_ok;
    });

    const auto path = std::make_shared<std::string>();
    CLI::App *const key = app->add_subcommand("key", "Make a key that signs revisions; prints the public key");
    key->add_option("FILE", *path, "New file for the secret key")->required();
    when_given(line, key, [&options = line.options, path] { return make_key(options, *path); });

    add_fleet_changes(fleet);
    add_fleet_questions(fleet);
}

} // namespace zelctl
