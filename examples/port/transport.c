/* The transport: a send copies the message into its own record. */
#include "port.h"

#include "zel.h"

#include <stdlib.h>
#include <string.h>

int32_t loopback_errno = 0;

static int32_t deliver(loopback_msg_t *msg, const void *bytes, uint32_t size)
{
    enum { TAIL = 64 };
    free(msg->payload);
    msg->payload = calloc(1, (size_t)size + TAIL);
    if (msg->payload == NULL)
        return -1;
    memcpy(msg->payload, bytes, size);
    return 0;
}

static int32_t send_bytes(loopback_msg_t *msg, const void *bytes, uint32_t size, uint32_t in_parts)
{
    static uint32_t last_token = 0;
    if (loopback_errno != 0 || !loopback_is_array(bytes, size) || deliver(msg, bytes, size) != 0)
        return -1;
    last_token += last_token == UINT32_MAX ? 2 : 1; /* never 0 */
    msg->token = last_token;
    msg->in_parts = in_parts;
    return 0;
}

int32_t loopback_answer(loopback_msg_t *msg, const void *bytes, uint32_t size)
{
    const char *body = (const char *)bytes + ZEL_RESP_HDR_SIZE;
    const uint32_t header = ZEL_RESP_HDR_SIZE;
    const int is_response = size == header || (size > header && loopback_is_array(body, size - header));
    return is_response ? deliver(msg, bytes, size) : -1;
}

int32_t fu_kob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *buffer,
                    uint32_t size, void *kob_msg, uintptr_t reserved1, uintptr_t reserved2)
{
    (void)kob_handle, (void)node, (void)sap, (void)opcode, (void)reserved1, (void)reserved2;
    return send_bytes(kob_msg, buffer, size, 0);
}

int32_t mpkob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const mpkob_segment_t *segments,
                   uint32_t num_segments, void *kob_msg, uintptr_t reserved)
{
    (void)kob_handle, (void)node, (void)sap, (void)opcode, (void)num_segments, (void)reserved;
    return send_bytes(kob_msg, segments[0].address, segments[0].length, 1); /* the library gives one */
}

uint32_t kob_rr_token_get(void *kob_msg) { return ((const loopback_msg_t *)kob_msg)->token; }

int32_t kob_errno_get(uint32_t kob_handle)
{
    (void)kob_handle;
    return loopback_errno;
}

void *kob_payload_get(void *kob_msg) { return ((const loopback_msg_t *)kob_msg)->payload; }

int32_t mpkob_is_mpkob(uint32_t kob_ctx, void *kob_msg)
{
    (void)kob_ctx;
    return ((const loopback_msg_t *)kob_msg)->in_parts != 0;
}

void *mpkob_payload_get(uint32_t kob_ctx, void *kob_msg)
{
    return mpkob_is_mpkob(kob_ctx, kob_msg) ? kob_payload_get(kob_msg) : NULL;
}
