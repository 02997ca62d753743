// zelagent: brings the service of this machine to the policies of its groups.
#include "tools/completion/completion.hpp"
#include "tools/fleet/commit.hpp"
#include "tools/zelagent/agent.hpp"

#include <CLI/CLI.hpp>
#include <fmt/core.h>
#include <sodium.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <sys/signalfd.h>
#include <unistd.h>

namespace zelagent {

namespace {

enum ExitCode { exit_ok = 0, exit_failed = 1, exit_usage = 2, exit_state = 4 };

std::string host_name()
{
    char name[HOST_NAME_MAX + 1] = "";
    gethostname(name, sizeof name);
    const std::string host(name);
    return host.substr(0, host.find('.'));
}

struct Arguments {
    Options options;
    tools::NatsOptions nats;
    std::vector<std::string> keys;
    std::vector<uint32_t> own_apps;
};

void add_options(CLI::App &app, Arguments &arguments)
{
    Options &options = arguments.options;
    const CLI::Validator name(
        [](const std::string &text) {
            return fleet::is_name(text) ? std::string() : text + " is not 1 to 63 of a-z, 0-9, - and _";
        },
        "NAME");
    options.machine.node = host_name();
    app.set_version_flag("--version", "zelagent " ZELAGENT_VERSION);
    app.add_option("--servers", options.servers, "the fleet's servers, nats://HOST[:PORT][,HOST...] or tls://...")
        ->envname("ZEL_SERVERS")
        ->required();
    app.add_option("--node", options.machine.node, "name of this node")->check(name)->capture_default_str();
    app.add_option("--group", options.machine.groups,
                   "groups of this node; where two have the same policy, the later one wins")
        ->check(name)
        ->required();
    app.add_option("--state", options.state, "file that keeps what was applied")->required();
    app.add_option("--key", arguments.keys, "public key that manifests must be signed with; several are possible");
    app.add_option("--own-app", arguments.own_apps, "application whose policies all come from the fleet: others go");
    app.add_option("--read-every", options.machine.read_ms, "milliseconds between two looks at the store, on average")
        ->check(CLI::Range(100U, 3600000U))
        ->capture_default_str();
    const std::string group = "The service beside the agent";
    ServiceOptions &service = options.service;
    app.add_option("--service", service.address, "its address")->capture_default_str()->group(group);
    app.add_option("--timeout", service.timeout, "seconds to wait for its answer")->capture_default_str()->group(group);
    app.add_option("--op-set", service.op_set, "op_code that sets")->capture_default_str()->group(group);
    app.add_option("--op-remove", service.op_remove, "op_code that removes")->capture_default_str()->group(group);
    app.add_option("--op-stats", service.op_stats, "op_code for statistics")->capture_default_str()->group(group);
    app.add_option("--ok-status", service.ok_status, "status of an answer that says yes, with error 0")
        ->capture_default_str()
        ->group(group);
    app.add_option("--not-found", service.not_found, "error of a removal that finds nothing")
        ->capture_default_str()
        ->group(group);
    app.add_option("--show-opcode", service.show_opcode, "opcode that shows policies; 0: it has none")
        ->capture_default_str()
        ->group(group);
    tools::add_nats_options(app, arguments.nats);
    app.footer("Exit codes: 0 stopped by SIGINT or SIGTERM, 1 failed, 2 usage, 4 state file.");
}

// Blocked before the first thread is made, so that every thread has them blocked.
int open_stop_signals()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    return signalfd(-1, &stop, SFD_CLOEXEC);
}

ExitCode run(Arguments &arguments)
{
    Options &options = arguments.options;
    for (const std::string &key : arguments.keys)
        options.keys.push_back(fleet::public_key_from_hex(key));
    options.machine.own_apps = {arguments.own_apps.begin(), arguments.own_apps.end()};
    options.machine.start = fleet::random_id();
    randombytes_buf(&options.machine.seed, sizeof options.machine.seed);
    (void)std::signal(SIGPIPE, SIG_IGN); // of a log whose reader has ended
    const int stop = open_stop_signals();
    tools::enable_nats(arguments.nats);
    Agent agent(options);
    fmt::print("ready {}\n", options.machine.node);
    (void)std::fflush(stdout);
    agent.run(stop);
    return exit_ok;
}

ExitCode run_command_line(int argc, char **argv)
{
    CLI::App app("Brings the service of this machine to the policies of its groups, and reports.", "zelagent");
    Arguments arguments;
    add_options(app, arguments);
    tools::add_completion_option(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? exit_ok : exit_usage;
    }
    try {
        return run(arguments);
    } catch (const StateError &error) {
        fmt::print(stderr, "zelagent: {}: {}\n", arguments.options.state, error.what());
        return exit_state;
    }
}

} // namespace
} // namespace zelagent

int main(int argc, char **argv)
{
    try {
        return sodium_init() >= 0 ? zelagent::run_command_line(argc, argv) : zelagent::exit_failed;
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "zelagent: %s\n", error.what());
        return zelagent::exit_failed;
    }
}
