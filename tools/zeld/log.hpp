// The service's log: lines on stderr or in a file, up to a level that the command line
// sets. Each begins with the time of day in UTC.
//
// error: the service cannot go on as it should. warn: a request or a client was refused.
// info: what changed. debug: requests that only look, and how long they took. trace:
// each request when it arrives.
//
// Writing never waits. A line that stderr does not take at once is dropped, and so are
// lines about a user that come too fast; the log says how many.
#pragma once

#include <cstdint>
#include <fmt/format.h>
#include <string>

namespace zeld {

enum class LogLevel { error, warn, info, debug, trace };

// A line about one user in a while, and so many at once.
constexpr uint32_t lines_per_second = 50;
constexpr uint32_t lines_at_once = 2000;

void set_log_level(LogLevel level);

// Lines go to the file from now on, which is created with mode 600 or appended to. Returns
// false with errno, and then nothing has changed.
bool open_log(const std::string &path);
// Opens the file anew, for a program that has renamed it. Without a file, nothing happens.
bool reopen_log();
int log_descriptor();

// "2026-01-31T12:00:00.000000Z", of ns since 1970
std::string show_time(uint64_t ns);

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
