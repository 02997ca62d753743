/*
 * kob_client.h - a client's half of the transport: sending requests, receiving responses.
 *
 *     uint32_t kob = kob_open("unix:/run/zel/zel.sock", NULL, NULL);
 *     kob_msg_t *msg = kob_msg_alloc();
 *     uint32_t token = zel_policy_delete(&handle, 7, op, msg);    (handle made with kob)
 *     if (token != 0 && kob_receive(kob, token, msg, -1) == KOB_OK)
 *         retval = zel_parse_response(msg, NULL, NULL, text);
 *     kob_msg_free(msg);
 *     kob_close(kob);
 *
 * The first request connects, and so does the first request after a connection broke.
 * A client may therefore start before its service and outlive it.  When a service ends,
 * the requests that it has not answered are lost: waiting for them ends with
 * KOB_ERR_PEER_GONE, or with KOB_ERR_RESTARTED once a later request has reached another
 * service at the address.
 */
#ifndef ZEL_PLATFORM_REFERENCE_KOB_CLIENT_H
#define ZEL_PLATFORM_REFERENCE_KOB_CLIENT_H

#include "zel-platform/kob.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* A member that is 0 takes its default. */
typedef struct {
    uint32_t timeout_ms;  /* for a request to leave, and for a response by default; 5000 */
    uint32_t max_message; /* largest message in either direction; 16 MiB */
    uint32_t no_wait;     /* not 0: sending does not wait, see kob_fd() */
} kob_client_options_t;

/*
 * Opens a transport handle for the service at an address.  Does not connect yet.
 * options may be null.  Returns the handle, which is never 0 or 1, or 0 with
 * KOB_ERR_ADDRESS or KOB_ERR_MEMORY (also: 64 handles are open) in *error, which
 * may be null.  The caller closes the handle.
 */
uint32_t kob_open(const char *address, const kob_client_options_t *options, int32_t *error);

/* Closes a handle and drops what was received on it and not fetched.  Other numbers are ignored. */
void kob_close(uint32_t kob_handle);

/*
 * Waits until the response with a token arrives, or any response when token is 0,
 * and puts it into msg, whose earlier payload is freed.  timeout_ms below 0 takes
 * the handle's own.  Responses to other requests are kept meanwhile, the latest
 * 64 and at most twice max_message bytes of them.
 *
 * Returns KOB_OK; KOB_ERR_TIMEOUT; KOB_ERR_PEER_GONE or KOB_ERR_RESTARTED as above;
 * KOB_ERR_TOO_LARGE, KOB_ERR_BUSY or KOB_ERR_BAD_FRAME when the service refused the
 * request or its answer is not acceptable here; KOB_ERR_ARGUMENT when msg is null;
 * KOB_ERR_HANDLE.  msg is unchanged unless KOB_OK.
 */
int32_t kob_receive(uint32_t kob_handle, uint32_t token, kob_msg_t *msg, int32_t timeout_ms);

/*
 * The descriptor of a handle's connection, for a poll() or epoll of the caller's; -1 without
 * connection, and where the endpoint has none.  Stays the handle's, and changes when the
 * handle connects again: ask after each request.  *events, which may be null, is what to wait
 * for: POLLIN, and POLLOUT besides while a request is leaving.  When the descriptor is ready,
 * call kob_receive() with a time of 0.
 *
 *     kob_client_options_t options = {.no_wait = 1};
 *     uint32_t kob = kob_open("unix:/run/zel/zel.sock", &options, NULL);
 *     uint32_t token = zel_policy_update(&handle, &policy, ZEL_OP_SET, msg);
 *     struct pollfd wait = {.fd = kob_fd(kob, &wait.events)};
 *     while (poll(&wait, 1, -1) >= 0 && kob_receive(kob, token, msg, 0) == KOB_ERR_TIMEOUT)
 *         wait.fd = kob_fd(kob, &wait.events);
 *
 * A handle with no_wait takes a request whole or refuses it.  What the connection does not
 * take at once is copied and leaves during later calls.  Until then, a further request is
 * refused with KOB_ERR_TIMEOUT, and nothing of it is sent.
 */
int kob_fd(uint32_t kob_handle, short *events);

/* A message that a client has sent or fetched. */
typedef struct {
    uint32_t is_response; /* 0: a request that has left */
    uint32_t in_parts;    /* 1: a multi-part message */
    uint32_t token;
    uint32_t opcode;
    uint32_t node;
    uint32_t sap;
    uint32_t size;       /* of the payload, in bytes */
    const void *payload; /* valid during the call */
} kob_tapped_t;

typedef void (*kob_tap_cb_t)(void *context, const kob_tapped_t *message);

/*
 * Has tap called with each request when it was taken, and with each response when
 * kob_receive() returns it; null: with none.  tap must not use the handle.
 * Returns KOB_OK or KOB_ERR_HANDLE.
 */
int32_t kob_tap(uint32_t kob_handle, kob_tap_cb_t tap, void *context);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
