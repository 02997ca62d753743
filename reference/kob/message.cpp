// Message records, and the accessors through which the library sees them.
#include "reference/kob/message.hpp"

#include "reference/contract.hpp"
#include "zel-platform/kob_service.h"
#include "zel-platform/tlv_check.h"
#include "zel.h"

#include <cstdlib>
#include <iterator>

namespace zel::platform {

void replace(kob_msg &msg, const kob_msg &from)
{
    std::free(msg.payload);
    msg = from;
}

const char *payload_fault(FrameKind kind, const void *payload, uint32_t size)
{
    if (size == 0)
        return nullptr;
    uint32_t header = 0;
    if (kind == FrameKind::response) {
        header = ZEL_RESP_HDR_SIZE;
        if (size < header)
            return "a response that is shorter than its header";
        if (size == header)
            return nullptr;
    }
    if (tlv_array_check(static_cast<const char *>(payload) + header, size - header) != TLV_OK)
        return "a TLV array that claims more bytes than arrived";
    return nullptr;
}

} // namespace zel::platform

const char *kob_error_text(int32_t error)
{
    static constexpr const char *texts[] = {
        "no error",
        "not an open transport handle",
        "endpoint address not understood",
        "no service at this address",
        "permission denied",
        "timed out",
        "the other side closed the connection",
        "the service was restarted, the request is lost",
        "message too large",
        "malformed message",
        "the other side has no memory or connection to spare",
        "out of memory or handles",
        "address already in use",
        "interrupted by a signal",
        "argument missing",
        "system error",
        "the folder of the address does not exist",
    };
    static_assert(std::size(texts) == zel::platform::last_error_code + 1);
    return error >= 0 && static_cast<std::size_t>(error) < std::size(texts) ? texts[error] : "unknown transport error";
}

kob_msg_t *kob_msg_alloc(void) { return static_cast<kob_msg_t *>(std::calloc(1, sizeof(kob_msg_t))); }

void kob_msg_free(kob_msg_t *msg)
{
    if (msg == nullptr)
        return;
    std::free(msg->payload);
    std::free(msg);
}

uint32_t kob_msg_size(const kob_msg_t *msg) { return msg->size; }

uint32_t kob_msg_opcode(const kob_msg_t *msg) { return msg->opcode; }

uint32_t kob_msg_node(const kob_msg_t *msg) { return msg->node; }

uint32_t kob_msg_sap(const kob_msg_t *msg) { return msg->sap; }

uint32_t kob_msg_client(const kob_msg_t *msg) { return msg->client; }

uint32_t kob_msg_pid(const kob_msg_t *msg) { return msg->pid; }

uint32_t kob_msg_uid(const kob_msg_t *msg) { return msg->uid; }

uint32_t kob_rr_token_get(void *kob_msg) { return static_cast<kob_msg_t *>(kob_msg)->token; }

// Also gives the payload of a message that arrived in parts: the readers of responses do not
// ask how a response came.
void *kob_payload_get(void *kob_msg) { return static_cast<kob_msg_t *>(kob_msg)->payload; }

int32_t mpkob_is_mpkob(uint32_t, void *kob_msg) { return static_cast<kob_msg_t *>(kob_msg)->in_parts != 0 ? 1 : 0; }

void *mpkob_payload_get(uint32_t, void *kob_msg)
{
    auto *const msg = static_cast<kob_msg_t *>(kob_msg);
    return msg->in_parts != 0 ? msg->payload : nullptr;
}
