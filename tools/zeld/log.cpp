#include "tools/zeld/log.hpp"

#include "tools/text/safe_text.hpp"
#include "tools/zeld/job.hpp"

#include <algorithm>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

namespace zeld {

namespace {

LogLevel threshold = LogLevel::info;
uint64_t num_dropped = 0;

constexpr const char *names[] = {"error", "warn", "info", "debug", "trace"};

// Where the lines go. A pipe or a terminal is opened again, so that non-blocking mode
// holds for this descriptor alone.
struct Output {
    Output() { use_stderr(); }

    void use_stderr()
    {
        struct stat file {};
        if (fstat(STDERR_FILENO, &file) != 0)
            return;
        is_socket = S_ISSOCK(file.st_mode);
        if (!S_ISFIFO(file.st_mode) && !S_ISCHR(file.st_mode))
            return;
        const int own = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        descriptor = own >= 0 ? own : STDERR_FILENO;
    }

    // One write for each line, so that lines of several processes do not mix.
    bool write(const std::string &line) const
    {
        const ssize_t size = is_socket ? send(descriptor, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                                       : ::write(descriptor, line.data(), line.size());
        return size == static_cast<ssize_t>(line.size());
    }

    // The number of the descriptor stays: other threads may write to it.
    bool open_file(const std::string &path)
    {
        const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
        if (file < 0)
            return false;
        is_socket = false;
        if (descriptor == STDERR_FILENO) {
            descriptor = file;
            return true;
        }
        const bool is_replaced = dup3(file, descriptor, O_CLOEXEC) >= 0;
        close(file);
        return is_replaced;
    }

    int descriptor = STDERR_FILENO;
    bool is_socket = false;
};

Output &output()
{
    static Output the_output;
    return the_output;
}

std::string file_path;

bool write_line(LogLevel level, std::string_view text)
{
    return output().write(fmt::format("{} zeld: {}: {}\n", show_time(time_of_day_ns()), names[static_cast<int>(level)],
                                      tools::safe_text(text)));
}

// Lines about one user: a bucket that fills with time.
struct Bucket {
    double lines = lines_at_once;
    uint64_t filled_ns = now_ns();
    uint64_t num_left_out = 0;

    bool take()
    {
        const uint64_t now = now_ns();
        lines = std::min<double>(lines_at_once, lines + static_cast<double>(now - filled_ns) * 1e-9 * lines_per_second);
        filled_ns = now;
        if (lines < 1)
            return false;
        lines -= 1;
        return true;
    }
};

// Users beyond these share one bucket.
constexpr std::size_t most_users = 1024;

} // namespace

void set_log_level(LogLevel level) { threshold = level; }

bool open_log(const std::string &path)
{
    if (!output().open_file(path))
        return false;
    file_path = path;
    return true;
}

bool reopen_log() { return file_path.empty() || output().open_file(file_path); }

int log_descriptor() { return output().descriptor; }

std::string show_time(uint64_t ns)
{
    constexpr uint64_t second = 1'000'000'000;
    const auto seconds = static_cast<time_t>(ns / second);
    tm date{};
    gmtime_r(&seconds, &date);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday,
                       date.tm_hour, date.tm_min, date.tm_sec, ns % second / 1000);
}

bool is_logged(LogLevel level) { return level <= threshold; }

void write_log(LogLevel level, fmt::string_view text)
{
    if (num_dropped != 0 && write_line(LogLevel::warn, fmt::format("{} lines were dropped", num_dropped)))
        num_dropped = 0;
    if (num_dropped != 0 || !write_line(level, {text.data(), text.size()}))
        ++num_dropped;
}

bool may_log_about(uint32_t uid)
{
    static std::unordered_map<uint32_t, Bucket> buckets;
    Bucket &bucket = buckets[buckets.size() < most_users || buckets.contains(uid) ? uid : UINT32_MAX];
    if (!bucket.take()) {
        ++bucket.num_left_out;
        return false;
    }
    if (bucket.num_left_out != 0)
        write_log(LogLevel::warn,
                  fmt::format("{} lines about user {} were left out", std::exchange(bucket.num_left_out, 0), uid));
    return true;
}

} // namespace zeld
