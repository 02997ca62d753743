/*
 * zel-nats.h - services on other machines, reached through a NATS server.
 *
 * After zel_nats_enable(), two more kinds of address are understood:
 *
 *     nats://HOST[:PORT][,HOST[:PORT]...]/SUBJECT[,SUBJECT...]    without encryption
 *     tls://HOST[:PORT][,HOST[:PORT]...]/SUBJECT[,SUBJECT...]     with TLS
 *
 * The hosts are servers of one cluster; the port is 4222 unless given.  The subject names
 * the service.  A service may listen at further subjects, which it shares with others: each
 * of them gets every request.  An address carries no credentials.
 *
 * Link with -lzel-nats -lzel-platform -lnats, in this order; libzel-nats exists as an
 * archive, and for 64-bit.
 *
 * What differs from local sockets:
 *
 *   - A service that is not there is reported for the request: kob_receive() returns
 *     KOB_ERR_ABSENT.  A service that dies while a request is under way is noticed by the
 *     time-out of that request.
 *   - A subject or a connection that the server forbids is KOB_ERR_DENIED.
 *   - A request that arrives twice is passed on once.  Its answer is sent again, if it is
 *     still kept: the answers of the last 1024 requests, up to 1 MiB each and 4 MiB in all.
 *     Otherwise the copy gets KOB_ERR_BUSY.
 *   - kob_msg_client() is a number of the request, because there is no connection.
 *   - kob_service_open() fails with KOB_ERR_ABSENT when no server can be reached.  Later the
 *     service reconnects for ever.  When the server closes the connection for good, because
 *     it withdrew the rights, kob_service_receive() returns KOB_ERR_DENIED.
 *   - A plain message above the server's max_payload travels in parts.
 *   - The transport has threads of its own.  Block signals before the first call.
 */
#ifndef ZEL_NATS_H
#define ZEL_NATS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Strings are copied.  A member that is null is read from the environment variable beside it; without, it is absent. */
typedef struct {
    const char *user;         /* ZEL_NATS_USER */
    const char *password;     /* ZEL_NATS_PASSWORD */
    const char *ca;           /* ZEL_NATS_CA: file of trusted certificates */
    const char *certificate;  /* ZEL_NATS_CERT: file of the own certificate */
    const char *key;          /* ZEL_NATS_KEY: file of its key */
    const char *inbox_prefix; /* ZEL_NATS_INBOX: beginning of the subjects of answers; _INBOX */
} zel_nats_options_t;

/*
 * Adds both kinds of address.  options may be null.  A further call replaces the options.
 * Returns KOB_OK, or KOB_ERR_MEMORY (also: the table of address kinds is full).  Not to be
 * called while another thread opens an address.
 */
int32_t zel_nats_enable(const zel_nats_options_t *options);

#ifdef __cplusplus
}
#endif

#endif
