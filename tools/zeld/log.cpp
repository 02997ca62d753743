#include "tools/zeld/log.hpp"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>

namespace zeld {

namespace {

LogLevel threshold = LogLevel::info;

constexpr const char *names[] = {"error", "warn", "info", "debug", "trace"};

} // namespace

void set_log_level(LogLevel level) { threshold = level; }

bool is_logged(LogLevel level) { return level <= threshold; }

// One write for each line, so that lines of several processes do not mix. Control
// characters are replaced, because a text may contain what a client sent.
void write_log(LogLevel level, fmt::string_view text)
{
    std::string line = fmt::format("zeld: {}: ", names[static_cast<int>(level)]);
    std::transform(text.begin(), text.end(), std::back_inserter(line),
                   [](char c) { return static_cast<unsigned char>(c) < ' ' ? ' ' : c; });
    line += '\n';
    (void)std::fwrite(line.data(), 1, line.size(), stderr);
}

} // namespace zeld
