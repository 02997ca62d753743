/*
 * trace_control.h - which reports of the trace facility go where.
 *
 * There are three destinations: the event history, which keeps the latest 256 events
 * in memory; the console, which is stderr; and the history log, a file.  Each has its
 * own set of trace ids.  Before zel_trace_init() the history takes every id and the
 * other two take none.
 *
 * All calls may be made on any thread at any time.
 */
#ifndef ZEL_PLATFORM_REFERENCE_TRACE_CONTROL_H
#define ZEL_PLATFORM_REFERENCE_TRACE_CONTROL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

enum zel_trace_destination { ZEL_TRACE_TO_HISTORY = 0, ZEL_TRACE_TO_CONSOLE = 1, ZEL_TRACE_TO_LOG = 2 };

/*
 * Sets up the facility from the environment:
 *
 *     ZEL_TRACE_HISTORY   ids for the event history
 *     ZEL_TRACE_CONSOLE   ids for the console
 *     ZEL_TRACE_LOG       ids for the history log; without it and with a file, all
 *     ZEL_TRACE_LOG_FILE  the log's file; created with mode 0600, appended to
 *
 * A list of ids is as for zel_trace_select().  A variable that is not set leaves
 * its destination as it is.  Returns 0, or the errno value of the first variable
 * that could not be applied (EINVAL: not a list of ids); the others are applied.
 */
int32_t zel_trace_init(void);

/*
 * Chooses the trace ids that a destination takes: decimal numbers below 1024
 * separated by commas or blanks, or "all", or "" for none.  Returns 0, or EINVAL
 * for any other text or destination, and then nothing has changed.
 */
int32_t zel_trace_select(uint32_t destination, const char *ids);

/*
 * Opens the file of the history log, or closes it when path is null.  Returns 0,
 * or the errno value of opening; the log then stays as it was.
 */
int32_t zel_trace_log_open(const char *path);

/*
 * Writes the event history to a file descriptor, oldest first, one line an
 * event: time of day, module, trace id, text.  Returns the number of events, or
 * -1 when the descriptor did not take them (errno says why).
 */
int32_t zel_trace_dump(int fd);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
