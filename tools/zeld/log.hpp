// The service's log: lines on stderr, up to a level that the command line sets.
#pragma once

#include <fmt/format.h>

namespace zeld {

enum class LogLevel { error, warn, info, debug, trace };

void set_log_level(LogLevel level);
bool is_logged(LogLevel level);
void write_log(LogLevel level, fmt::string_view text);

template <class... Args> void log(LogLevel level, fmt::format_string<Args...> text, const Args &...args)
{
    if (is_logged(level))
        write_log(level, fmt::vformat(text, fmt::make_format_args(args...)));
}

} // namespace zeld
