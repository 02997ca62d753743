// What a command line gets wrong about the names of commands.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace zelctl {

// A word that stands where a command belongs and is none, in words: "unknown command
// polcy; did you mean policy?"  Empty when there is no such word.
std::string unknown_command(const CLI::App &app, const std::vector<std::string> &words);

} // namespace zelctl
