// Whatever bytes arrive: the parser, the response helpers and the decoders stay
// within them, within bounds of memory, and free what they may.  The first byte
// chooses a decoder and how the message travelled; the message follows.  Its size chooses
// the debug flag and the callbacks.
#include "bounds.hpp"
#include "elements.hpp"
#include "heap.hpp"
#include "received.hpp"
#include "target.hpp"
#include "zel/platform/avl_tree.h"

#include "wire/record_names.hpp"
#include "zel/platform/tlv_array.h"

#include <iterator>

using namespace fuzz;
using zel::platform::FrameKind;

namespace {

void check_responses(void *msg)
{
    char text[ZEL_RESP_TEXT_SIZE];
    uint32_t status = 0;
    uint32_t error = 0;
    const zel_resp_hdr_t *const header = zel_get_resp_hdr(msg);
    const int32_t retval = zel_parse_response(msg, &status, &error, text);
    REQUIRE(header == nullptr ? retval == -1
                              : retval == header->retval && status == header->status && error == header->error &&
                                    std::strncmp(text, header->msg, sizeof text) == 0);
    REQUIRE(zel_req_id_get(msg) == 0);
}

void check_first_look(void *msg)
{
    (void)zel_get_app_type(0, msg);
    (void)zel_get_api_type(msg);
}

// ---- The parser

// When a policy came instead of one of its groups, the result lies within it.
bool may_lie_within(uint32_t mat_type)
{
    return mat_type == ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP || mat_type == ZEL_MAT_TYPE_IF_GROUP;
}

void check_parser(Received &received, std::size_t size)
{
    const Heap heap(parse_bound(size));
    zel_api_handle_t handle = fresh_handle();
    uint32_t mat_type = UINT32_MAX;
    uint32_t api_type = 0;
    uint32_t app_type = 0;
    uint16_t policy_id = 0;
    void *const root = parse_mat_obj_from_kob(0, &handle, received.msg(), &mat_type, &api_type, &policy_id, &app_type);
    REQUIRE(mat_type == get_mat_obj_type(api_type));
    REQUIRE(ravl_is_empty(&handle.mat_cache) != 0);
    if (root == nullptr)
        return;
    REQUIRE(heap.is_block(root) || may_lie_within(mat_type));
    REQUIRE(free_contained_mat_obj_mem(&handle, app_type, mat_type, root) == 0);
    if (heap.is_block(root))
        std::free(root);
}

// ---- One decoder

// The cursor at the first start marker of a record, or at the array's first element.
uint32_t cursor_of_first(uint16_t start, const void *array)
{
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    for (uint32_t cursor = 0, at = 0; tlv_array_get_next_tlv(array, &type, &length, &value, 0, &cursor) == 0;
         at = cursor)
        if (type == start)
            return at;
    return 0;
}

template <class R, class... App>
void decode(const zel::wire::Record &record,
            int32_t (*decoder)(zel_api_handle_t *, const void *, uint32_t *, R *, uint32_t *, App...),
            const void *array)
{
    zel_api_handle_t handle = fresh_handle();
    auto *const object = static_cast<R *>(std::calloc(1, sizeof(R)));
    uint32_t cursor = cursor_of_first(record.start, array);
    uint32_t subtotal = 0;
    const int32_t status = decoder(&handle, array, &cursor, object, &subtotal, App{}...);
    REQUIRE(subtotal <= tlv_array_get_num_tlvs(array, 0));
    REQUIRE(status == 0 || reports.errors != 0 || !handle_variant.has_errors);
    zel_empty_mat_cache(&handle);
    // A record without MAT type owns nothing.
    (void)free_contained_mat_obj_mem(&handle, 0, record.mat_type, object);
    std::free(object);
}

#define DECODER(object) [](const void *array) { decode(zel::wire::object, zel_parse_##object##_from_tlv, array); },

constexpr void (*decoders[])(const void *) = {DECODER(kob_header) ZEL_LEAF_RECORDS(DECODER) ZEL_PLAIN_RECORDS(DECODER)
                                                  ZEL_CACHED_RECORDS(DECODER)};

void check_decoder(std::size_t choice, const void *array, std::size_t size)
{
    // And the record that it is given.
    const Heap heap(parse_bound(size) + largest_record());
    decoders[choice % std::size(decoders)](array);
}

} // namespace

const std::size_t fuzz::array_offset = 1;

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size < array_offset)
        return 0;
    const uint8_t choice = *data;
    const bool in_parts = choice % 2 != 0;
    handle_variant = {size % 2 != 0, size / 2 % 2 == 0, size / 4 % 2 == 0, size / 8 % 2 == 0};
    data += array_offset;
    size -= array_offset;
    if (Received response(FrameKind::response, data, size, in_parts); response.is_delivered()) {
        check_responses(response.msg());
        check_first_look(response.msg());
    }
    if (Received request(FrameKind::request, data, size, in_parts); request.is_delivered()) {
        check_first_look(request.msg());
        check_parser(request, size);
        if (size != 0)
            check_decoder(choice / 2, request.payload(), size);
    }
    return 0;
}
