/*
 * kob_service.h - a service's half of the transport: receiving requests, replying.
 *
 *     kob_service_t *service = kob_service_open("unix:/run/zel/zel.sock", NULL, NULL);
 *     while (!stopping) {
 *         if (kob_service_receive(service, msg, 1000) != KOB_OK)
 *             continue;
 *         ... parse_mat_obj_from_kob(0, &handle, msg, ...) ...
 *         kob_service_reply(service, msg, segments, 2);
 *     }
 *     kob_service_close(service);
 *
 * No call waits for a client.  Replies that a client does not read at once are queued,
 * up to a limit.  Parts of messages are put together, up to a limit and for a limited
 * time.  A client that exceeds a limit, or sends something that is not a request, is
 * reported and gets a refusal; if that is not possible, it is cut off.  When the memory
 * for all clients runs out, the client that holds most of it is cut off.
 *
 * When there are too many connections, a new one takes the place of the one that has
 * been idle longest: of the same user if that has too many, otherwise of the user that
 * has most.  Connections without any request so far go first, and one whose request
 * has not been answered stays.  A client that is disconnected or not accepted for this
 * reason receives KOB_ERR_BUSY.
 */
#ifndef ZEL_PLATFORM_REFERENCE_KOB_SERVICE_H
#define ZEL_PLATFORM_REFERENCE_KOB_SERVICE_H

#include "zel-platform/kob.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

typedef struct kob_service kob_service_t;

/*
 * Called once for every packet or client that was refused, on the thread that is in a
 * call of the service.  Must not call the service.  client is the number of the
 * connection, as kob_msg_client() gives it; reason is valid during the call.
 */
typedef void (*kob_refusal_cb_t)(void *context, uint32_t client, const char *reason);

/* A member that is 0 takes its default. */
typedef struct {
    uint32_t max_message;          /* largest request and largest reply; 16 MiB */
    uint32_t max_clients;          /* connections at a time; 64 */
    uint32_t max_queued;           /* reply bytes that wait for one client; twice max_message */
    uint32_t max_memory;           /* half messages and waiting replies of all clients; 4 x max_message */
    uint32_t idle_ms;              /* a client whose half message does not grow for so long is cut off; 10000 */
    uint32_t permissions;          /* unix: alone: mode bits of the socket file; 0600 */
    kob_refusal_cb_t on_refusal;   /* may be null */
    void *context;                 /* for on_refusal */
    uint32_t max_clients_per_user; /* connections of one user id; seven eighths of max_clients */
    uint32_t has_group;            /* unix: alone; not 0: the socket file gets the group that follows */
    uint32_t group;
} kob_service_options_t;

/*
 * Listens at an address.  options may be null.  A socket file that a dead service
 * left behind is replaced.  If several services start at one address at a time, at
 * most one gets it; meanwhile there is a file PATH.kob-lock beside the socket.
 *
 * Returns null with a reason in *error, which may be null: KOB_ERR_ADDRESS,
 * KOB_ERR_NO_FOLDER, KOB_ERR_IN_USE, KOB_ERR_DENIED, KOB_ERR_MEMORY or
 * KOB_ERR_SYSTEM.  The caller closes the service.
 */
kob_service_t *kob_service_open(const char *address, const kob_service_options_t *options, int32_t *error);

/*
 * A descriptor that is readable when kob_service_receive() has something to do,
 * for the service's own poll() or epoll.  Stays the service's.
 */
int kob_service_fd(const kob_service_t *service);

/*
 * Waits for a request, serving all clients meanwhile, and puts it into msg, whose
 * earlier payload is freed.  The payload is one TLV array that lies within the
 * bytes received, or there is none.  timeout_ms 0: one step and no waiting; below
 * 0: for as long as it takes.
 *
 * Returns KOB_OK, KOB_ERR_TIMEOUT (there may be more to do: look at the
 * descriptor), KOB_ERR_INTERRUPTED, KOB_ERR_ARGUMENT when msg is null, or
 * KOB_ERR_SYSTEM.  msg is unchanged unless KOB_OK.
 */
int32_t kob_service_receive(kob_service_t *service, kob_msg_t *msg, int32_t timeout_ms);

/* The connection that a received request came by: a number that is not used again. */
uint32_t kob_msg_client(const kob_msg_t *msg);

/*
 * The process that opened that connection, and its user, as the system saw them then.
 * 0 and UINT32_MAX where the endpoint cannot say.
 */
uint32_t kob_msg_pid(const kob_msg_t *msg);
uint32_t kob_msg_uid(const kob_msg_t *msg);

/* A connection of a service. */
typedef struct {
    uint32_t client; /* as kob_msg_client() gives it */
    uint32_t pid;    /* as kob_msg_pid() and kob_msg_uid() */
    uint32_t uid;
} kob_client_info_t;

/*
 * Puts the connections that there are into infos, at most capacity of them.  Returns how
 * many there are; 0 where the endpoint cannot say.
 */
uint32_t kob_service_clients(const kob_service_t *service, kob_client_info_t *infos, uint32_t capacity);

/*
 * is_held 1: no further requests are read of the client that sent this one; they wait in
 * its connection.  0: they are read again.  Nothing happens when the client has gone, or
 * where the endpoint cannot do it.
 */
void kob_service_hold(kob_service_t *service, const kob_msg_t *request, int is_held);

/* 1 when the client that sent a request has closed its connection, else 0. */
int kob_service_is_gone(const kob_service_t *service, const kob_msg_t *request);

/*
 * Answers a request with the bytes of the segments, which are copied.  request is the
 * record that the request was received in.  Requests may be answered later, in any
 * order, and more than once.  A reply above KOB_PLAIN_LIMIT travels in parts.
 *
 * Returns KOB_OK when the reply was sent or queued; KOB_ERR_PEER_GONE;
 * KOB_ERR_TOO_LARGE; KOB_ERR_BUSY when the client has too much unread and was cut
 * off, or when memory for all clients ran out; KOB_ERR_MEMORY when there was none for
 * the reply, and the client was cut off.
 */
int32_t kob_service_reply(kob_service_t *service, const kob_msg_t *request, const mpkob_segment_t *segments,
                          uint32_t num_segments);

/* Cuts all clients off, stops listening and removes the socket file.  Null is ignored. */
void kob_service_close(kob_service_t *service);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
