// The trace facility: event history, console and history log.
#include "reference/contract.hpp"
#include "reference/trace/trace_switch.hpp"
#include "zel-platform/trace_control.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

using zel::platform::TraceSwitch;

// What an application type stands for is an agreement between a service and its users, so
// the names are the numbers.
const char *const g_applications[] = {"app0", "app1", "app2",  "app3",  "app4",  "app5",  "app6",  "app7",
                                      "app8", "app9", "app10", "app11", "app12", "app13", "app14", "app15"};
const uint32_t g_num_applications = std::size(g_applications);

const char trc_dbg_modname[] = "zel";

namespace {

constexpr std::size_t text_size = 512;

struct Event {
    timespec time;
    uint32_t module;
    uint32_t id;
    char text[text_size];
};

// The latest events.  num_recorded counts all that were ever recorded.
constexpr uint32_t history_size = 256;
Event history[history_size];
uint32_t num_recorded = 0;
pthread_mutex_t history_lock = PTHREAD_MUTEX_INITIALIZER;

// The descriptor of the log; -1 before the first one is opened.  From then on the number stays
// the same, and dup3() puts another file behind it, so that no thread writes to a descriptor
// that has been closed and used again for something else.
std::atomic<int> log_file{-1};

constinit TraceSwitch switches[] = {TraceSwitch(true), TraceSwitch(false), TraceSwitch(false)};

bool takes(zel_trace_destination destination, uint32_t id) { return switches[destination].takes(id); }

// A record is the id and a NUL-terminated text; length counts both.
uint32_t id_of(const void *record)
{
    uint32_t id;
    std::memcpy(&id, record, sizeof id);
    return id;
}

void copy_text(char (&text)[text_size], const void *record, uint32_t length)
{
    const std::size_t given = length > sizeof(uint32_t) ? length - sizeof(uint32_t) : 0;
    const std::size_t copied = std::min(given, text_size - 1);
    std::memcpy(text, static_cast<const char *>(record) + sizeof(uint32_t), copied);
    text[copied] = '\0';
}

// A line of output.  Ends with exactly one newline, however many the text has.
struct Line {
    char text[text_size + 128];
    std::size_t length = 0;

    template <class... Args> void append(const char *format, Args... arguments)
    {
        grow(std::snprintf(text + length, room(), format, arguments...));
    }

    void append_list(const char *format, va_list arguments)
    {
        // The analyzer does not see that the caller started the list.
        grow(std::vsnprintf(text + length, room(), format, arguments)); // NOLINT(clang-analyzer-valist.Uninitialized)
    }

    // With a single write(), so that the lines of several processes do not mix.
    bool write_to(int fd)
    {
        while (length > 0 && text[length - 1] == '\n')
            --length;
        text[length] = '\n';
        return write(fd, text, length + 1) == static_cast<ssize_t>(length + 1);
    }

private:
    // The last byte stays free for the newline.
    std::size_t room() const { return sizeof text - 1 - length; }

    void grow(int wanted)
    {
        if (wanted > 0)
            length += std::min(static_cast<std::size_t>(wanted), room() - 1);
    }
};

void append_time(Line &line, const timespec &time)
{
    tm date{};
    char text[32];
    gmtime_r(&time.tv_sec, &date);
    (void)strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &date);
    line.append("%s.%06ldZ ", text, time.tv_nsec / 1000);
}

timespec time_of_day()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

} // namespace

int32_t trc_hist_event_subtype_check(uint32_t, uint32_t trace_id)
{
    return takes(ZEL_TRACE_TO_HISTORY, trace_id) ? 0 : 1;
}

void trc_hist_event(uint32_t module, uint32_t length, const void *record)
{
    const timespec now = time_of_day();
    pthread_mutex_lock(&history_lock);
    Event &event = history[num_recorded++ % history_size];
    event.time = now;
    event.module = module;
    event.id = id_of(record);
    copy_text(event.text, record, length);
    pthread_mutex_unlock(&history_lock);
}

int32_t trc_chk_int(uint32_t trace_id, uint32_t, uint32_t, uint32_t)
{
    return takes(ZEL_TRACE_TO_CONSOLE, trace_id) ? 1 : 0;
}

void dbgout(uint32_t, const void *module_name, uint32_t, const char *format, ...)
{
    Line line;
    line.append("%s: ", static_cast<const char *>(module_name));
    va_list arguments;
    va_start(arguments, format);
    line.append_list(format, arguments);
    va_end(arguments);
    line.write_to(STDERR_FILENO);
}

void trc_his_log_event_for_uuid_inst(uint32_t log, uint32_t module, uint32_t instance, uint32_t, uint32_t length,
                                     const void *record)
{
    const int file = log_file.load(std::memory_order_relaxed);
    const uint32_t id = id_of(record);
    if (file < 0 || !takes(ZEL_TRACE_TO_LOG, id))
        return;
    char text[text_size];
    copy_text(text, record, length);
    Line line;
    append_time(line, time_of_day());
    line.append("%u 0x%x %u %u %s", log, module, instance, id, text);
    line.write_to(file);
}

// ---- Selection of destinations

int32_t zel_trace_select(uint32_t destination, const char *ids)
{
    if (destination >= std::size(switches) || !switches[destination].select(ids))
        return EINVAL;
    return 0;
}

int32_t zel_trace_log_open(const char *path)
{
    const int file = open(path != nullptr ? path : "/dev/null", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0)
        return errno;
    int established = -1;
    if (log_file.compare_exchange_strong(established, file))
        return 0;
    const int32_t error = dup3(file, established, O_CLOEXEC) < 0 ? errno : 0;
    close(file);
    return error;
}

int32_t zel_trace_init(void)
{
    int32_t first_error = 0;
    const auto follow = [&](const char *variable, auto apply) {
        const char *const value = std::getenv(variable);
        const int32_t error = value != nullptr ? apply(value) : 0;
        if (first_error == 0)
            first_error = error;
    };
    follow("ZEL_TRACE_HISTORY", [](const char *ids) { return zel_trace_select(ZEL_TRACE_TO_HISTORY, ids); });
    follow("ZEL_TRACE_CONSOLE", [](const char *ids) { return zel_trace_select(ZEL_TRACE_TO_CONSOLE, ids); });
    follow("ZEL_TRACE_LOG_FILE", [](const char *path) {
        const int32_t error = zel_trace_log_open(path);
        return error != 0 ? error : zel_trace_select(ZEL_TRACE_TO_LOG, "all");
    });
    follow("ZEL_TRACE_LOG", [](const char *ids) { return zel_trace_select(ZEL_TRACE_TO_LOG, ids); });
    return first_error;
}

int32_t zel_trace_dump(int fd)
{
    // Copies one event at a time, so that no other thread waits until the descriptor is written.
    pthread_mutex_lock(&history_lock);
    const uint32_t end = num_recorded;
    pthread_mutex_unlock(&history_lock);
    const uint32_t count = std::min(end, history_size);
    for (uint32_t i = end - count; i != end; ++i) {
        pthread_mutex_lock(&history_lock);
        const Event event = history[i % history_size];
        pthread_mutex_unlock(&history_lock);
        Line line;
        append_time(line, event.time);
        line.append("0x%x %u %s", event.module, event.id, event.text);
        if (!line.write_to(fd))
            return -1;
    }
    return static_cast<int32_t>(count);
}
