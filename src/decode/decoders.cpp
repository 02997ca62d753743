// The exported decoders.
#include "decode/decode.hpp"
#include "wire/record_names.hpp"
#include "wire/records.hpp"

namespace zel {
namespace {

int32_t decode_with_own_budget(zel_api_handle_t *handle, const void *array, uint32_t *cursor,
                               const wire::Record &record, void *object, uint32_t *subtotal, uint32_t app_type = 0)
{
    AllocationBudget budget{array};
    return decode({{handle, app_type}, array, cursor, budget}, record, object, *subtotal);
}

} // namespace
} // namespace zel

using namespace zel;

// One macro per shape of signature.
#define DECODER(object)                                                                                                \
    int32_t zel_parse_##object##_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,           \
                                          zel_##object##_t *record, uint32_t *tlv_subtotal)                            \
    {                                                                                                                  \
        return decode_with_own_budget(handle, tlv_array, cursor, wire::object, record, tlv_subtotal);                  \
    }
#define DECODER_WITH_APP(object)                                                                                       \
    int32_t zel_parse_##object##_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,           \
                                          zel_##object##_t *record, uint32_t *tlv_subtotal, uint32_t app_type)         \
    {                                                                                                                  \
        return decode_with_own_budget(handle, tlv_array, cursor, wire::object, record, tlv_subtotal, app_type);        \
    }

DECODER(kob_header)
ZEL_LEAF_RECORDS(DECODER)
ZEL_PLAIN_RECORDS(DECODER_WITH_APP)
ZEL_CACHED_RECORDS(DECODER_WITH_APP)
