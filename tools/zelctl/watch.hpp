// The messages of a running service, as they come.
#pragma once

#include "tools/observe/capture.hpp"
#include "tools/zelctl/connection.hpp"

namespace zelctl {

// Which messages are wanted, and for how long.
struct WatchArguments {
    bool last = false;  // those that the service keeps, and no more
    uint64_t count = 0; // end after so many messages; 0: no limit
    double seconds = 0; // end after so long; 0: no limit
};

void add_watch_options(CLI::App *command, WatchArguments &arguments);

// Messages that the service had forgotten before they were asked for.
struct Watched {
    uint64_t messages = 0;
    uint64_t missed = 0;
    uint64_t cut = 0; // of which only the first bytes were kept
};

// Asks again and again until the arguments' end, or SIGINT or SIGTERM. Calls take(block,
// message) for each message, and pause() when it waits. Returns the exit code of a refusal,
// or exit_ok.
using TakeBlock = std::function<void(std::string_view block, const observe::Recorded &message)>;
int watch(const Options &options, const WatchArguments &arguments, const TakeBlock &take,
          const std::function<void()> &pause, Watched &watched);

} // namespace zelctl
