#include "tools/zelagent/log.hpp"

#include "tools/text/safe_text.hpp"

#include <fmt/core.h>

#include <poll.h>
#include <unistd.h>

namespace zelagent {

void log(const std::string &text)
{
    const std::string line = fmt::format("zelagent: {}\n", tools::safe_text(text));
    pollfd entry{STDERR_FILENO, POLLOUT, 0};
    if (poll(&entry, 1, 0) == 1 && (entry.revents & POLLOUT) != 0)
        (void)!write(STDERR_FILENO, line.data(), line.size());
}

} // namespace zelagent
