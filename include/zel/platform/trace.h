/*
 * trace.h - the trace facility: where reports go when a handle's debug flag is set.
 *
 * For every report, the library calls in this order: the event history, if its
 * subtype check returns 0; the console, if its check returns non-zero; and always the
 * history log.  It formats the text anew for each of them and ignores results.
 *
 * A record is a 32-bit trace id followed by a NUL-terminated text of at most 511
 * characters.  Its length is that of the text plus 5.  The record is valid during the
 * call only.  module is 0x730000, the library's event space.
 *
 * All calls may be made on any thread.
 */
#ifndef ZEL_PLATFORM_TRACE_H
#define ZEL_PLATFORM_TRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Names of the applications: the table that a handle's app_type indexes. */
extern const char *const g_applications[];

/*
 * Number of rows of g_applications.  Optional: a port that has no such symbol links and
 * works, but must have a row for every application type that a handle with its debug
 * flag set may have.  With this symbol, the library prints the number of an application
 * type that has no row, instead of reading beyond the table.
 */
extern const uint32_t g_num_applications __attribute__((weak));

/* Name of the library at the console; the library passes its address to dbgout(). */
extern const char trc_dbg_modname[];

/* 0 when this event is to be recorded in the event history. */
int32_t trc_hist_event_subtype_check(uint32_t module, uint32_t trace_id);

/* Records an event in the event history. */
void trc_hist_event(uint32_t module, uint32_t length, const void *record);

/* Non-zero when this trace id is shown on the console.  The library gives 0, 0, 1. */
int32_t trc_chk_int(uint32_t trace_id, uint32_t reserved1, uint32_t reserved2, uint32_t level);

/* Prints to the console, printf-like.  The library gives 1, the module's name and 0. */
void dbgout(uint32_t level, const void *module_name, uint32_t reserved, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* Appends to the history log.  log is 648; instance 1, or 2 from the message parser. */
void trc_his_log_event_for_uuid_inst(uint32_t log, uint32_t module, uint32_t instance, uint32_t reserved,
                                     uint32_t length, const void *record);

#ifdef __cplusplus
}
#endif

#endif
