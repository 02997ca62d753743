// zelctl: the command line client of the policy service.
#include "tools/fleet/store.hpp"
#include "tools/json/bad_input.hpp"
#include "tools/message/tracing.hpp"
#include "tools/observe/fingerprint.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/transport/nats_options.hpp"
#include "tools/zelctl/command.hpp"
#include "tools/zelctl/connection.hpp"
#include "tools/zelctl/output.hpp"

#include <fmt/core.h>
#include <sodium.h>

#include <cstdio>
#include <cstring>
#include <exception>

namespace zelctl {
namespace {

void add_global_options(CLI::App &app, Options &options)
{
    app.add_option("--service", options.service, "Where the service listens")
        ->envname("ZEL_SERVICE")
        ->type_name("unix:PATH|nats://HOST/SUBJECT|tls://HOST/SUBJECT")
        ->capture_default_str();
    app.add_option("--timeout", options.timeout, "Seconds to wait for an answer")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();
    app.add_option("--app", options.app, "The application on whose behalf requests are made")
        ->type_name("NUMBER")
        ->capture_default_str();
    app.add_flag("--json", options.json, "Print JSON, for scripts");
    app.add_option("--capture", options.capture, "Write what is sent and received to a file, in pcapng format")
        ->type_name("FILE");
    app.footer(
        std::string("Exit codes: 0 done; 1 refused by the service; 2 command line not understood; 3 a file that\n"
                    "cannot be read or is not right; 4 no service or no answer; 5 any other failure.\n") +
        tools::trace_help);
}

int complain(const std::exception &fault, int code)
{
    fmt::print(stderr, "zelctl: {}\n", tools::safe_text(fault.what()));
    return code;
}

// Runs a command and turns each exception into a message and an exit code.
int run(const Command &command)
{
    try {
        const int code = command();
        finish_output();
        return code;
    } catch (const tools::BadInput &fault) {
        return complain(fault, exit_bad_input);
    } catch (const NoService &fault) {
        return complain(fault, exit_no_service);
    } catch (const fleet::BusError &fault) {
        return complain(fault, exit_no_service);
    } catch (const fleet::Conflict &fault) {
        return complain(fault, exit_no_service);
    } catch (const fleet::BadData &fault) {
        return complain(fault, exit_bad_input);
    } catch (const CLI::Error &fault) {
        return complain(fault, exit_usage);
    } catch (const std::exception &fault) {
        return complain(fault, exit_failed);
    }
}

int run_command_line(int argc, char **argv)
{
    CLI::App app("Client of the policy service: applies, shows and deletes policies, reads counters, feeds traffic,\n"
                 "and looks into messages.",
                 "zelctl");
    app.set_version_flag("--version", "zelctl " + observe::version_text(ZELCTL_VERSION));
    Options options;
    tools::NatsOptions nats_options;
    Command chosen;
    const CommandLine line{app, options, chosen};
    app.require_subcommand(1);
    app.fallthrough();
    add_global_options(app, options);
    tools::add_nats_options(app, nats_options);
    add_policy_commands(line);
    add_stats_command(line);
    add_traffic_command(line);
    add_send_command(line);
    add_codec_commands(line);
    add_import_commands(line);
    add_fleet_commands(line);
    add_status_command(line);
    add_capture_commands(line);
    add_replay_command(line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &fault) {
        return app.exit(fault) == 0 ? exit_ok : exit_usage;
    }
    if (const int32_t error = zel_trace_init(); error != 0) {
        fmt::print(stderr, "zelctl: the ZEL_TRACE variables cannot be followed: {}\n", std::strerror(error));
        return exit_usage;
    }
    return run([&] {
        tools::enable_nats(nats_options);
        return chosen();
    });
}

} // namespace
} // namespace zelctl

int main(int argc, char **argv)
{
    try {
        return sodium_init() >= 0 ? zelctl::run_command_line(argc, argv) : zelctl::exit_failed;
    } catch (...) { // no memory for the command line, or none for an error message
        (void)std::fputs("zelctl: failed\n", stderr);
        return zelctl::exit_failed;
    }
}
