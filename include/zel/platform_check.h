/*
 * platform_check.h - what a port can add to zel-platform-check, the program that checks a port.
 *
 * The program is linked from an archive that has main(), and needs the C library alone:
 *
 *     gcc -o check my_port.o -lzel-platform-check -lzel
 *
 * With -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free it also checks what the port
 * does without memory, and whether it returns what it took.
 *
 * The transport of the contract only sends, so the program cannot check it by itself.  A port
 * that defines zel_check_loopback_open() makes it possible.
 */
#ifndef ZEL_PLATFORM_CHECK_H
#define ZEL_PLATFORM_CHECK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A client and a service in one process.  A function may be null; what needs it is then not
 * checked.  Each gets context.  A message record that is returned stays valid until the next
 * call of the same function.
 */
typedef struct {
    uint32_t size;       /* sizeof(zel_check_loopback_t), set by the program */
    uint32_t kob_handle; /* transport handle of the client */
    uint32_t kob_ctx;    /* transport context of both sides */
    void *request;       /* message record that the client sends with */
    void *context;

    /* The request that was sent last, as the service receives it; null when none came. */
    void *(*receive)(void *context);

    /*
     * Answers the request that receive() returned last with size bytes of a response, and
     * returns the response as the client receives it; null when none came.
     */
    void *(*answer)(void *context, const void *bytes, uint32_t size);

    /* From now on the transport refuses what the client sends. */
    void (*refuse)(void *context);
} zel_check_loopback_t;

/*
 * Fills *loopback, of which all but the size is zero.  address is what --loopback gives, or
 * null.  Called once for each duty of the transport, each time in a process of its own, which
 * ends without closing anything.  Returns 0; any other number when there is no loopback at
 * this address.
 */
int32_t zel_check_loopback_open(const char *address, zel_check_loopback_t *loopback) __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
