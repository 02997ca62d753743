// What a shell offers while somebody types the command line of a tool.
#pragma once

#include <CLI/CLI.hpp>

namespace tools {

// Adds --completion SHELL, which prints a script for bash, zsh or fish and ends the
// program. The script is made of what the command line declares.  To be called before
// the commands are added or after: the script has those that exist when it is printed.
void add_completion_option(CLI::App &app);

} // namespace tools
