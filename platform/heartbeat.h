/*
 * heartbeat.h - the sign of life towards the system manager.
 */
#ifndef ZEL_PLATFORM_HEARTBEAT_H
#define ZEL_PLATFORM_HEARTBEAT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Called about every 32 objects of a long encoding, so that a process which
 * encodes a very large graph is not taken for dead.  The argument is always 0.
 * Must be cheap and must not block.
 */
void fu_keeper_update_and_send_heartbeat(int32_t reserved);

#ifdef __cplusplus
}
#endif

#endif
