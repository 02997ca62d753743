// zelctl fleet: policies for many machines.
#pragma once

#include "tools/zelctl/fleet/session.hpp"

#include <memory>

namespace zelctl {

struct FleetLine {
    const CommandLine &line;
    CLI::App &app; // "zelctl fleet"
    std::shared_ptr<FleetOptions> options;

    // Adds a command that runs with a session.
    template <class Run> void when_given(CLI::App *command, Run run) const
    {
        zelctl::when_given(line, command, [options = this->options, run] {
            FleetSession session(*options);
            return run(session);
        });
    }
};

void add_fleet_changes(const FleetLine &line);   // apply, delete, confirm, undo, diff
void add_fleet_questions(const FleetLine &line); // nodes, status, watch, log, drift, stats, retry

} // namespace zelctl
