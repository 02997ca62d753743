// From a request to a message on the transport.
#include "model/elements.hpp"
#include "model/trace.hpp"
#include "zel.h"
#include "zel/platform/transport.h"

#include <array>
#include <cstdlib>
#include <cstring>

namespace zel {
namespace {

// The object that each request kind carries.  A delete names its policy in the header.
constexpr auto carried_types = [] {
    std::array<uint32_t, ZEL_API_STATS_PULL + 1> types{};
    types[ZEL_API_POLICY_LIST_UPDATE] = ZEL_MAT_TYPE_POLICY_LIST;
    types[ZEL_API_POLICY_UPDATE] = ZEL_MAT_TYPE_POLICY;
    types[ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE] = ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP;
    types[ZEL_API_MATCH_ACTION_PAIR_UPDATE] = ZEL_MAT_TYPE_MATCH_ACTION_PAIR;
    types[ZEL_API_MATCH_GROUP_UPDATE] = ZEL_MAT_TYPE_MATCH_GROUP;
    types[ZEL_API_ACTION_GROUP_UPDATE] = ZEL_MAT_TYPE_ACTION_GROUP;
    types[ZEL_API_MATCH_UPDATE] = ZEL_MAT_TYPE_MATCH;
    types[ZEL_API_ACTION_UPDATE] = ZEL_MAT_TYPE_ACTION;
    types[ZEL_API_INTERFACE_GROUP_UPDATE] = ZEL_MAT_TYPE_IF_GROUP;
    types[ZEL_API_POLICY_DELETE] = ZEL_MAT_TYPE_POLICY;
    types[ZEL_API_STATS_PULL] = ZEL_MAT_TYPE_STAT_REQUEST;
    return types;
}();

struct MessageSize {
    uint32_t header; // with what the array takes
    uint32_t data;

    uint32_t total() const { return header + data; }
};

MessageSize size_of_message(zel_api_handle_t &handle, const zel_kob_header_t &header, const void *obj)
{
    const uint32_t header_size = zel_kob_header_get_tlv_sz() + array_overhead;
    return {header_size, get_mat_obj_size_for_kob(&handle, header.app_type, get_mat_obj_type(header.api_type), obj)};
}

// An empty array.  In one program with its platform, only what encoding leaves unused is zeroed.
void *allocate_array(uint32_t size)
{
#ifdef ZEL_INLINE_ELEMENTS
    void *const array = std::malloc(size);
    if (array != nullptr)
        platform::set_used_bytes(array, 0);
    return array;
#else
    return std::calloc(size, 1);
#endif
}

void zero_unused([[maybe_unused]] void *array, [[maybe_unused]] uint32_t size)
{
#ifdef ZEL_INLINE_ELEMENTS
    const uint32_t used = array_overhead + platform::used_bytes(array);
    std::memset(static_cast<char *>(array) + used, 0, size - used);
#endif
}

// The message, or null without memory.
void *encode_message(zel_api_handle_t &handle, const zel_kob_header_t &header, const void *obj, MessageSize size)
{
    void *const message = allocate_array(size.total());
    if (message == nullptr)
        return nullptr;
    zel_add_kob_header_to_tlv(&handle, message, size.total(), &header);
    assemble_mat_obj_for_kob(&handle, header.app_type, message, size.total(), get_mat_obj_type(header.api_type), obj);
    zero_unused(message, size.total());
    return message;
}

// Hands the message to the transport, plainly or in parts.  Returns the token,
// or 0 after reporting a refusal.
uint32_t transmit(const zel_api_handle_t &handle, const void *message, uint32_t size, void *kob_msg)
{
    const uint32_t kob_handle = handle.kob_handle;
    const auto transport_errno = [&] { return kob_errno_get(kob_handle); };
    constexpr const char *function = "send_to_zel";

    if (size > ZEL_KOB_MP_THRESHOLD) {
        const mpkob_segment_t whole{message, size};
        const int32_t status =
            mpkob_send(kob_handle, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, ZEL_KOB_OPC_MP_REQUEST, &whole, 1, kob_msg, 0);
        if (status == 0)
            return kob_rr_token_get(kob_msg);
        trace(handle, Severity::error, {function, 4009}, "mpkob_send() fails , kob_retval: %d, errno: %d "_trace,
              status, transport_errno);
    } else {
        const int32_t status =
            fu_kob_send(kob_handle, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, ZEL_KOB_OPC_REQUEST, message, size, kob_msg, 0, 0);
        if (status == 0)
            return kob_rr_token_get(kob_msg);
        trace(handle, Severity::error, {function, 4023}, "fu_kob_send() fails. kob_retval: %d, errno: %d "_trace,
              status, transport_errno);
    }
    return 0;
}

} // namespace
} // namespace zel

using namespace zel;

uint32_t get_mat_obj_type(uint32_t api_type)
{
    return api_type < carried_types.size() ? carried_types[api_type] : uint32_t{ZEL_MAT_TYPE_NONE};
}

uint32_t send_to_zel(uint32_t *result, uint32_t api_type, zel_api_handle_t *handle, uint16_t policy_id, const void *obj,
                     uint32_t op_code, void *kob_msg)
{
    *result = 0;
    if (handle->kob_handle == ZEL_KOB_NO_TRANSPORT)
        return ZEL_SEND_ERR_NO_TRANSPORT;

    const zel_kob_header_t header{api_type, handle->app_type, policy_id, op_code};
    const MessageSize size = size_of_message(*handle, header, obj);
    trace(*handle, Severity::notice, {__func__, 3977}, "size_tlv_arr_4_hdr: %d, size_tlv_arr_4_data: %d\n"_trace,
          size.header, size.data);
    void *const message = encode_message(*handle, header, obj, size);
    if (message == nullptr)
        return ZEL_SEND_ERR_NO_MEMORY;
    *result = transmit(*handle, message, size.total(), kob_msg);
    std::free(message);
    return ZEL_SEND_DONE;
}

void *zel_encode_message(zel_api_handle_t *handle, const zel_kob_header_t *header, const void *obj, uint32_t *size)
{
    const MessageSize needed = size_of_message(*handle, *header, obj);
    *size = needed.total();
    return encode_message(*handle, *header, obj, needed);
}

uint32_t zel_message_size(zel_api_handle_t *handle, uint32_t api_type, const void *obj)
{
    return size_of_message(*handle, {api_type, handle->app_type, 0, 0}, obj).total();
}

uint32_t get_mat_obj_size_for_kob(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type, const void *obj)
{
    uint32_t size = 0;
    // The traversal takes all modes through one pointer; only releasing writes to the object.
    traverse_mat_obj(handle, nullptr, &size, mat_type, const_cast<void *>(obj), app_type, MAT_TRAVERSE_SIZE);
    return size;
}

uint32_t assemble_mat_obj_for_kob(zel_api_handle_t *handle, uint32_t app_type, void *buffer, uint32_t capacity,
                                  uint32_t mat_type, const void *obj)
{
    return traverse_mat_obj(handle, buffer, &capacity, mat_type, const_cast<void *>(obj), app_type,
                            MAT_TRAVERSE_ENCODE);
}

uint32_t free_contained_mat_obj_mem(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type, void *obj)
{
    return traverse_mat_obj(handle, nullptr, nullptr, mat_type, obj, app_type, MAT_TRAVERSE_FREE);
}
