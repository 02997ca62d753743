/*
 * manager.h - telling the system manager about the state of a process.
 *
 * A system manager names a socket in the environment variable NOTIFY_SOCKET: an
 * absolute path, or '@' and an abstract name.  Without the variable, or with
 * another value, nothing is sent.  The variable is read once, at the first call.
 * The library's heartbeat (zel/platform/heartbeat.h) sends "WATCHDOG=1" there by itself.
 */
#ifndef ZEL_PLATFORM_REFERENCE_MANAGER_H
#define ZEL_PLATFORM_REFERENCE_MANAGER_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/*
 * Sends a state, such as "READY=1" or "STOPPING=1".  May wait until the manager has
 * room for it.  Failures are not reported.  May be called on any thread.
 */
void zel_manager_notify(const char *state);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
