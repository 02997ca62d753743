// The one trace procedure: every report of the library passes through trace().
#pragma once

#include "platform/trace.h"
#include "wire/fixed_string.hpp"
#include "zel.h"

#include <algorithm>
#include <cstdio>
#include <stdint.h>
#include <type_traits>

namespace zel {

enum class Severity : uint32_t {
    error = ZEL_TRACE_ERROR,
    warning = ZEL_TRACE_WARNING,
    notice = ZEL_TRACE_NOTICE,
    detail = ZEL_TRACE_DEBUG,
};

// Where a report comes from.  Field tooling finds some sites by their line
// number; those name it, all others take the line they stand on.
struct Site {
    constexpr Site(const char *function_name, int line_number = __builtin_LINE(), uint32_t instance = 1)
        : function(function_name), line(line_number), history_log_instance(instance)
    {}

    const char *function;
    int line;
    uint32_t history_log_instance;
};

// What precedes every text at the trace facility: function, line, application.
inline constexpr FixedString trace_prefix{"%s(%d)[%s]: "};
inline constexpr std::size_t trace_prefix_length = sizeof trace_prefix.text - 1;

// "text"_trace is the text's format with the prefix in front.
template <FixedString Text> constexpr const char *operator""_trace() { return c_str<trace_prefix + Text>; }

struct TraceRecord {
    uint32_t id;
    char text[512];
};

// An argument with a side effect is given as a callable and evaluated anew for
// every destination.
template <class T> auto trace_argument(const T &argument)
{
    if constexpr (std::is_invocable_v<T>)
        return argument();
    else
        return argument;
}

inline zel_trace_cb_t callback_of(const zel_api_handle_t &handle, Severity severity)
{
    switch (severity) {
    case Severity::error:
        return handle.err_cb;
    case Severity::warning:
        return handle.warn_cb;
    default:
        return handle.dbg_cb;
    }
}

// Fills a record; returns its length: id, text and terminating NUL.
template <class... Args> uint32_t fill_record(TraceRecord &record, uint32_t id, const char *format, const Args &...args)
{
    constexpr int longest = sizeof record.text - 1;
    record.id = id;
    const int length =
        std::min(std::snprintf(record.text, sizeof record.text, format, trace_argument(args)...), longest);
    return static_cast<uint32_t>(length) + sizeof record.id + 1;
}

// The trace facility's three destinations.
template <class... Args> void log(Severity severity, const Site &site, const char *format, const Args &...args)
{
    const auto id = static_cast<uint32_t>(severity);
    TraceRecord record;
    if (trc_hist_event_subtype_check(ZEL_TRACE_MODULE_ID, id) == 0) {
        const auto length = fill_record(record, id, format, args...);
        trc_hist_event(ZEL_TRACE_MODULE_ID, length, &record);
    }
    if (trc_chk_int(id, 0, 0, 1) != 0)
        dbgout(1, trc_dbg_modname, 0, format, trace_argument(args)...);
    const auto length = fill_record(record, id, format, args...);
    trc_his_log_event_for_uuid_inst(ZEL_TRACE_HISLOG_ID, ZEL_TRACE_MODULE_ID, site.history_log_instance, 0, length,
                                    &record);
}

// The benchmark has a build without reports, to show what silent ones cost.
#ifdef ZEL_NO_TRACE
inline constexpr bool reports_are_compiled_in = false;
#else
inline constexpr bool reports_are_compiled_in = true;
#endif

// By value: an argument whose address is taken would be kept in memory where it
// comes from, and most of them never get here.
template <class... Args>
[[gnu::cold, gnu::noinline]] void report(const zel_api_handle_t &handle, Severity severity, Site site,
                                         const char *format, Args... args)
{
    if (handle.debug != 0)
        log(severity, site, format, site.function, site.line, g_applications[handle.app_type], args...);
    if (const auto callback = callback_of(handle, severity))
        callback(format + trace_prefix_length, trace_argument(args)...);
}

// Reports a text, made by _trace, to the trace facility when the handle's debug
// flag is set, and in any case to the callback of its severity.
template <class... Args>
[[gnu::always_inline]] inline void trace(const zel_api_handle_t &handle, Severity severity, const Site &site,
                                         const char *format, Args... args)
{
    if constexpr (!reports_are_compiled_in)
        return;
    if (handle.debug != 0 || callback_of(handle, severity) != nullptr) [[unlikely]]
        report(handle, severity, site, format, args...);
}

} // namespace zel
