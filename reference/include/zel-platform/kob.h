/*
 * kob.h - message records, error codes and addresses of this platform's transport.
 *
 * What clients and services share; see kob_client.h and kob_service.h for the
 * two halves.
 *
 * An endpoint address names a service.  The part before the first colon says how
 * it is reached:
 *
 *     unix:PATH   a local socket (SOCK_SEQPACKET) at a path of at most 107 bytes that
 *                 does not begin with '@'
 *
 * All times are milliseconds, all sizes bytes.  A record or object of the
 * transport is used by one thread at a time; different ones are independent.
 */
#ifndef ZEL_PLATFORM_REFERENCE_KOB_H
#define ZEL_PLATFORM_REFERENCE_KOB_H

#pragma GCC visibility push(default)
#include "zel/platform/transport.h"
#pragma GCC visibility pop

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* The largest message that travels plainly; multi-part messages are limited by the two sides' options. */
#define KOB_PLAIN_LIMIT 120832u

/* No option raises the largest message above this. */
#define KOB_MESSAGE_LIMIT 0x40000000u

/* Zero bytes that can be read behind every received payload. */
#define KOB_PAYLOAD_TAIL 64u

/* Results of every call, and what kob_errno_get() returns. */
enum {
    KOB_OK = 0,
    KOB_ERR_HANDLE = 1,       /* the number is not an open transport handle */
    KOB_ERR_ADDRESS = 2,      /* the endpoint address is not understood */
    KOB_ERR_ABSENT = 3,       /* no service listens at the address */
    KOB_ERR_DENIED = 4,       /* the system does not permit it */
    KOB_ERR_TIMEOUT = 5,      /* not within the time given */
    KOB_ERR_PEER_GONE = 6,    /* the other side closed the connection */
    KOB_ERR_RESTARTED = 7,    /* the request went to a service that has been replaced since */
    KOB_ERR_TOO_LARGE = 8,    /* the message is larger than a side's limit */
    KOB_ERR_BAD_FRAME = 9,    /* the other side sent, or objects to, something malformed */
    KOB_ERR_BUSY = 10,        /* the other side is at the limit of its memory, or of its connections */
    KOB_ERR_MEMORY = 11,      /* out of memory, or of transport handles */
    KOB_ERR_IN_USE = 12,      /* a service listens at the address already, or it is not a socket */
    KOB_ERR_INTERRUPTED = 13, /* a signal arrived while waiting */
    KOB_ERR_ARGUMENT = 14,    /* an argument is missing */
    KOB_ERR_SYSTEM = 15,      /* the system refused in another way; errno says how */
    KOB_ERR_NO_FOLDER = 16    /* the folder that a service's address names does not exist */
};

/* A result in words; never null. */
const char *kob_error_text(int32_t error);

/* A message record: what the library's request and response calls take as kob_msg. */
typedef struct kob_msg kob_msg_t;

/* A record without payload, or null when out of memory.  The caller frees it. */
kob_msg_t *kob_msg_alloc(void);

/* Frees a record and the payload that it received; null is ignored. */
void kob_msg_free(kob_msg_t *msg);

/*
 * A received message: size of its payload, the operation code and the address
 * that it was sent with.  0 before anything was received.
 */
uint32_t kob_msg_size(const kob_msg_t *msg);
uint32_t kob_msg_opcode(const kob_msg_t *msg);
uint32_t kob_msg_node(const kob_msg_t *msg);
uint32_t kob_msg_sap(const kob_msg_t *msg);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
