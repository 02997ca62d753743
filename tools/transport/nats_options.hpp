// The command line options for addresses of NATS servers.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace tools {

// Credentials are files and environment variables, because a command line is visible to all.
struct NatsOptions {
    std::string user;
    std::string ca;
    std::string certificate;
    std::string key;
    std::string inbox;
};

void add_nats_options(CLI::App &app, NatsOptions &options);

// Makes nats: and tls: addresses known.  Throws std::bad_alloc.
void enable_nats(const NatsOptions &options);

} // namespace tools
