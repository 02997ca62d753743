// Messages as bytes.
#pragma once

#include "tools/zeld/message.hpp"

namespace test {

using zeld::Bytes;

// A message as send_to_zel() would send it, with memory behind it that can be read.
inline Bytes message_of(const zel_kob_header_t &header, const void *object)
{
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, header.app_type, 1, nullptr, nullptr, nullptr);
    const uint32_t mat_type = get_mat_obj_type(header.api_type);
    const uint32_t size =
        4 + zel_kob_header_get_tlv_sz() + get_mat_obj_size_for_kob(&handle, header.app_type, mat_type, object);
    Bytes message;
    message.reserve(size + KOB_PAYLOAD_TAIL);
    message.resize(size);
    zel_add_kob_header_to_tlv(&handle, message.data(), size, &header);
    assemble_mat_obj_for_kob(&handle, header.app_type, message.data(), size, mat_type, object);
    return message;
}

} // namespace test
