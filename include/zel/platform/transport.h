/*
 * transport.h - the message transport (kob) that the library sends and receives with.
 *
 * All calls have C linkage and are made on the thread that called the library.
 * kob_msg is a message record.  What it is is the platform's decision: the library
 * passes the caller's pointer on and never reads through it.
 *
 * Arguments called "reserved" are machine words that the library always gives
 * as 0.
 *
 * A received payload is one TLV array (zel/platform/tlv_array.h), or a response header and
 * its body.  The platform must see to it that a payload
 *
 *   - is followed by at least 64 readable bytes, which should be 0: decoders read the
 *     full width of a field whatever the length of its element is, and the widest
 *     field has 64 bytes;
 *   - is aligned to 4 bytes, so that a response header can be read in place;
 *   - has at least 268 bytes, those of the response header, if it is a response;
 *   - does not change, and stays valid, during the library's calls.  When the caller
 *     and the platform release it is their own agreement: the library keeps no
 *     pointer into it between calls.
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
 * Sends one message of at most 120832 bytes.  Returns 0 when the transport has taken
 * it, and then kob_rr_token_get(kob_msg) identifies the exchange.  The library frees
 * the buffer after the call, so the transport must copy what it keeps.
 */
int32_t fu_kob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *buffer,
                    uint32_t size, void *kob_msg, uintptr_t reserved1, uintptr_t reserved2);

/* The same for a larger message, given as a list of segments.  The library gives one. */
int32_t mpkob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const mpkob_segment_t *segments,
                   uint32_t num_segments, void *kob_msg, uintptr_t reserved);

/* The token that pairs a request with its response; never 0 for a message that was sent. */
uint32_t kob_rr_token_get(void *kob_msg);

/*
 * Why the last call on this transport handle failed.  The library may ask several times
 * for one failure: once for each destination of its report.
 */
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
