// Reading what came back, and a first look at what came in.
#include "receive/payload.hpp"
#include "zel.h"
#include "zel/platform/tlv_array.h"

#include <cstddef>
#include <cstring>

namespace {

// A header that travels whole in one element.  send_to_zel() writes one element
// per field instead; peers that look for this form find nothing in its messages.
constexpr uint16_t whole_header_id = 3;

uint32_t whole_header_word(const void *array, std::size_t index)
{
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    uint32_t cursor = 0;
    if (array == nullptr || tlv_array_get_next_tlv(array, &type, &length, &value, 0, &cursor) != 0 ||
        type != whole_header_id)
        return 0;
    uint32_t word = 0;
    std::memcpy(&word, static_cast<const std::byte *>(value) + index * sizeof word, sizeof word);
    return word;
}

} // namespace

zel_resp_hdr_t *zel_get_resp_hdr(void *kob_msg) { return static_cast<zel_resp_hdr_t *>(kob_payload_get(kob_msg)); }

uint32_t zel_req_id_get(void *kob_msg) { return kob_rr_token_get(kob_msg); }

int32_t zel_parse_response(void *kob_msg, uint32_t *status, uint32_t *error, char *text)
{
    const zel_resp_hdr_t *const header = zel_get_resp_hdr(kob_msg);
    if (header == nullptr)
        return -1;
    if (status != nullptr)
        *status = header->status;
    if (error != nullptr)
        *error = header->error;
    if (text != nullptr)
        std::strncpy(text, header->msg, ZEL_RESP_TEXT_SIZE);
    return header->retval;
}

uint32_t zel_get_app_type(uint32_t mp_ctx, void *kob_msg)
{
    return whole_header_word(zel::payload_of(mp_ctx, kob_msg), 1);
}

uint32_t zel_get_api_type(void *kob_msg) { return whole_header_word(kob_payload_get(kob_msg), 0); }
