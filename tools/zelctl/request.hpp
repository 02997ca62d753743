// A request from the command line: its kind, its header and the file with its object.
// "send" sends it and "encode" writes it to a file.
#pragma once

#include "tools/message/message.hpp"
#include "tools/zelctl/command.hpp"

#include <optional>
#include <string>

namespace zelctl {

struct RequestArguments {
    std::string kind;
    std::string file;
    std::optional<uint16_t> policy;
    std::string operation = "set";
};

// Adds --policy and --op.
void add_request_options(CLI::App *subcommand, RequestArguments &arguments);

// Throws CLI::ValidationError when the arguments do not fit the kind.
tools::Message make_request(const RequestArguments &arguments, uint32_t app);

} // namespace zelctl
