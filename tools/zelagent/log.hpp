// The agent's log: lines on the standard error.
#pragma once

#include <string>

namespace zelagent {

// In one write without waiting: a log that nobody reads must not stop the agent.
void log(const std::string &text);

} // namespace zelagent
