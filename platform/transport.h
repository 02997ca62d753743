/*
 * transport.h - the message transport (kob) that the library sends and receives with.
 *
 * One of the facilities that a platform supplies; see the other headers in this
 * folder.  All have C linkage and are called on the thread that called the
 * library.  A message record is whatever the platform says it is: the library
 * passes the caller's pointer through and never looks behind it.
 *
 * Arguments called "reserved" are machine words that the library always gives
 * as 0.
 *
 * Payloads.  A received payload is one TLV array (platform/tlv_array.h) or a
 * response header with its body.  It must be
 *
 *   - followed by at least 64 readable bytes, zero unless the platform has a
 *     reason: decoders read a field's full width whatever its element's length
 *     says, and the widest field is 64 bytes;
 *   - aligned to 4 bytes, so that a response header can be read in place;
 *   - when it is a response, no shorter than the response header, 268 bytes;
 *   - stable and valid until the message is released, which is the caller's and
 *     the platform's business: the library keeps no pointer into it.
 */
#ifndef ZEL_PLATFORM_TRANSPORT_H
#define ZEL_PLATFORM_TRANSPORT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One piece of a multi-part message. */
typedef struct {
    const void *address;
    uint32_t length; /* bytes */
} mpkob_segment_t;

/*
 * Sends one message of at most 120832 bytes.  Returns 0 when the transport took
 * it, and then kob_rr_token_get(kob_msg) identifies the exchange.  The buffer is
 * freed as soon as the call returns, so the transport copies what it keeps.
 */
int32_t fu_kob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *buffer,
                    uint32_t size, void *kob_msg, uintptr_t reserved1, uintptr_t reserved2);

/* The same for a larger message, given as a list of segments.  The library gives one. */
int32_t mpkob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const mpkob_segment_t *segments,
                   uint32_t num_segments, void *kob_msg, uintptr_t reserved);

/* The token that pairs a request with its response; never 0 for a message that was sent. */
uint32_t kob_rr_token_get(void *kob_msg);

/* Why the last call on this transport handle failed.  Asked once per place that reports it. */
int32_t kob_errno_get(uint32_t kob_handle);

/* Payload of a received message, or null when it has none. */
void *kob_payload_get(void *kob_msg);

/* Non-zero when the message arrived in parts. */
int32_t mpkob_is_mpkob(uint32_t kob_ctx, void *kob_msg);

/* Payload of a message that arrived in parts, put together; null when it has none. */
void *mpkob_payload_get(uint32_t kob_ctx, void *kob_msg);

#ifdef __cplusplus
}
#endif

#endif
