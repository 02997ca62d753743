/*
 * heartbeat.h - tells the system manager that the process is alive.
 */
#ifndef ZEL_PLATFORM_HEARTBEAT_H
#define ZEL_PLATFORM_HEARTBEAT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Called about every 32 objects of an encoding, so that the system manager's watchdog
 * does not end a process that encodes a very large graph.  The argument is always 0.
 * Must not block, and must be cheap: it may well do nothing in most calls.
 */
void fu_keeper_update_and_send_heartbeat(int32_t reserved);

#ifdef __cplusplus
}
#endif

#endif
