// The one trace procedure: every report of the library passes through trace().
#pragma once

#include "model/fixed_string.hpp"
#include "zel.h"
#include "zel/platform/trace.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdint.h>
#include <type_traits>

namespace zel {

// Objects that were marked become entries of the cache, before a callback runs that may look there.
#ifdef ZEL_INLINE_ELEMENTS
void give_up_marks(const zel_api_handle_t &handle); // in cache/marks.cpp
#else
inline void give_up_marks(const zel_api_handle_t &) {}
#endif

enum class Severity : uint32_t {
    error = ZEL_TRACE_ERROR,
    warning = ZEL_TRACE_WARNING,
    notice = ZEL_TRACE_NOTICE,
    detail = ZEL_TRACE_DEBUG,
};

// Where a report comes from.  Field tooling identifies some reports by their line
// number: those give it.  All others have the line on which they stand.
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

// Integers travel as 32 bits, so that few forms of report() are compiled.  An argument
// with a side effect is given as a callable and evaluated for each destination.
template <class T> constexpr auto report_argument(T argument)
{
    if constexpr (std::is_integral_v<T>)
        return static_cast<uint32_t>(argument);
    else
        return argument;
}

template <class T> auto value_of(const T &argument)
{
    if constexpr (std::is_invocable_v<T>)
        return static_cast<uint32_t>(argument());
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

// The name of an application, or its number when the platform says that it has no row.
class ApplicationName {
public:
    explicit ApplicationName(uint32_t app_type)
    {
        const bool has_row = &g_num_applications == nullptr || app_type < g_num_applications;
        name_ = has_row ? g_applications[app_type] : number_;
        if (!has_row)
            (void)std::snprintf(number_, sizeof number_, "%u", app_type);
    }
    ApplicationName(const ApplicationName &) = delete;
    ApplicationName &operator=(const ApplicationName &) = delete;

    const char *text() const { return name_; }

private:
    const char *name_;
    char number_[11];
};

// Fills a record; returns its length: id, text and terminating NUL.  A text that cannot
// be formatted counts as far as it stands in the record.
template <class... Args>
[[gnu::cold, gnu::noinline]] uint32_t fill_record(TraceRecord &record, uint32_t id, const char *format,
                                                  const Args &...args)
{
    record.id = id;
    record.text[0] = '\0';
    (void)std::snprintf(record.text, sizeof record.text, format, value_of(args)...);
    return static_cast<uint32_t>(std::strlen(record.text) + sizeof record.id + 1);
}

// The trace facility's three destinations.
template <class... Args>
[[gnu::cold]] void log(Severity severity, const Site &site, const char *format, const Args &...args)
{
    const auto id = static_cast<uint32_t>(severity);
    TraceRecord record;
    if (trc_hist_event_subtype_check(ZEL_TRACE_MODULE_ID, id) == 0) {
        const auto length = fill_record(record, id, format, args...);
        trc_hist_event(ZEL_TRACE_MODULE_ID, length, &record);
    }
    if (trc_chk_int(id, 0, 0, 1) != 0)
        dbgout(1, trc_dbg_modname, 0, format, value_of(args)...);
    const auto length = fill_record(record, id, format, args...);
    trc_his_log_event_for_uuid_inst(ZEL_TRACE_HISLOG_ID, ZEL_TRACE_MODULE_ID, site.history_log_instance, 0, length,
                                    &record);
}

// The benchmark has a build without reports, which shows what they cost when nobody
// listens.
#ifdef ZEL_NO_TRACE
inline constexpr bool reports_are_compiled_in = false;
#else
inline constexpr bool reports_are_compiled_in = true;
#endif

// By value: references would force every caller to keep these variables in memory,
// although reports are rare.
template <class... Args>
[[gnu::cold, gnu::noinline]] void report(const zel_api_handle_t &handle, Severity severity, Site site,
                                         const char *format, Args... args)
{
    if (severity == Severity::error)
        ++const_cast<zel_api_handle_t &>(handle).faults.count; // of the caller, who is told by it
    if (handle.debug != 0)
        log(severity, site, format, site.function, site.line, ApplicationName(handle.app_type).text(), args...);
    if (const auto callback = callback_of(handle, severity)) {
        give_up_marks(handle);
        callback(format + trace_prefix_length, value_of(args)...);
    }
}

// Whether no report about single elements and objects goes anywhere.
inline bool is_quiet(const zel_api_handle_t &handle)
{
    return !reports_are_compiled_in || (handle.debug == 0 && handle.dbg_cb == nullptr);
}

// Reports a text, made by _trace, to the trace facility when the handle's debug
// flag is set, and in any case to the callback of its severity.  Errors are counted.
template <class... Args>
[[gnu::always_inline]] inline void trace(const zel_api_handle_t &handle, Severity severity, const Site &site,
                                         const char *format, Args... args)
{
    if constexpr (!reports_are_compiled_in)
        return;
    if (severity == Severity::error || handle.debug != 0 || callback_of(handle, severity) != nullptr) [[unlikely]]
        report(handle, severity, site, format, report_argument(args)...);
}

} // namespace zel
