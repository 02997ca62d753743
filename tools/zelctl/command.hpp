// The global options of zelctl, its exit codes, and how a command is added.
#pragma once

#include "tools/records/service_protocol.hpp"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <string>

namespace zelctl {

enum ExitCode : int {
    exit_ok = 0,
    exit_refused = 1,    // the service answered that it does not do it
    exit_usage = 2,      // the command line is not understood
    exit_bad_input = 3,  // a file, or what is in it
    exit_no_service = 4, // no service, no answer, or no understandable one
    exit_failed = 5,     // anything else: out of memory, output that cannot be written
    exit_unknown = 6,    // a request was sent, and it is not known whether it was done
    exit_found = 7,      // check found something, or diff a difference
    // A change of a fleet:
    exit_some = 10,   // some nodes refused it
    exit_none = 11,   // all nodes that answered refused it
    exit_silent = 12, // none refused it, and not all answered
};

struct Options {
    std::string service = service::default_address;
    double timeout = 5; // seconds
    uint32_t app = 0;
    bool json = false;
    std::string capture; // file for all messages; empty: none
};

// A command with its arguments bound; returns the exit code.
using Command = std::function<int()>;

// Where commands are added.  The subcommand that is given sets chosen.
struct CommandLine {
    CLI::App &app;
    const Options &options;
    Command &chosen;
};

template <class Run> void when_given(const CommandLine &line, CLI::App *subcommand, Run run)
{
    subcommand->callback([&line_chosen = line.chosen, run] { line_chosen = run; });
}

// The ids that a policy can have; 65535 stands for all.
inline CLI::Range policy_id_range() { return CLI::Range(uint16_t{0}, uint16_t{65534}); }

// "1 pair", "2 pairs"
inline std::string plural(std::size_t number, const std::string &noun)
{
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

void add_policy_commands(const CommandLine &line);
void add_apply_command(const CommandLine &line, CLI::App *policy);
void add_check_command(const CommandLine &line, CLI::App *policy);
void add_diff_command(const CommandLine &line, CLI::App *policy);
void add_show_command(const CommandLine &line, CLI::App *policy);
void add_backup_commands(const CommandLine &line);
void add_explain_command(const CommandLine &line);
void add_send_command(const CommandLine &line);
void add_stats_command(const CommandLine &line);
void add_traffic_command(const CommandLine &line);
void add_codec_commands(const CommandLine &line);
void add_import_commands(const CommandLine &line);
void add_fleet_commands(const CommandLine &line);
void add_status_command(const CommandLine &line);
void add_capture_commands(const CommandLine &line);
void add_replay_command(const CommandLine &line);

} // namespace zelctl
