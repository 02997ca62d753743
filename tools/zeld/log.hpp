// The service's log: lines on stderr, up to a level that the command line sets.
//
// Writing never waits. A line that stderr does not take at once is dropped, and so are
// lines about a user that come too fast; the log says how many.
#pragma once

#include <cstdint>
#include <fmt/format.h>

namespace zeld {

enum class LogLevel { error, warn, info, debug, trace };

// A line about one user in a while, and so many at once.
constexpr uint32_t lines_per_second = 50;
constexpr uint32_t lines_at_once = 2000;

void set_log_level(LogLevel level);
bool is_logged(LogLevel level);
void write_log(LogLevel level, fmt::string_view text);

// Returns false when the user's lines come too fast; then this one is counted.
bool may_log_about(uint32_t uid);

template <class... Args> void log(LogLevel level, fmt::format_string<Args...> text, const Args &...args)
{
    if (is_logged(level))
        write_log(level, fmt::vformat(text, fmt::make_format_args(args...)));
}

// A line that a client has caused.
template <class... Args>
void log_about(uint32_t uid, LogLevel level, fmt::format_string<Args...> text, const Args &...args)
{
    if (is_logged(level) && may_log_about(uid))
        write_log(level, fmt::vformat(text, fmt::make_format_args(args...)));
}

} // namespace zeld
