// Compression for those who bring a record of any MAT type, in any mode.
#include "encode/compress.hpp"

#include "encode/element.hpp"
#include "encode/walk.hpp"
#include "model/trace.hpp"

namespace zel {
namespace {

constexpr const char *function = "compress_mat";

template <class R>
uint32_t compress(zel_api_handle_t *handle, void *array, uint32_t *size, const R &object, uint32_t mode,
                  uint32_t app_type)
{
    if (is_first_occurrence(handle, app_type, object))
        return ZEL_COMPRESS_WHOLE;
    if (mode == MAT_TRAVERSE_ENCODE) {
        ElementWriter writer(handle, array, *size);
        walk_reference(writer, object);
        return ZEL_COMPRESS_DONE;
    }
    if (mode == MAT_TRAVERSE_SIZE) {
        ElementSizer sizer;
        walk_reference(sizer, object);
        *size += sizer.total();
        return ZEL_COMPRESS_DONE;
    }
    trace(*handle, Severity::error, function, "unknown mode: %d"_trace, mode);
    return ZEL_COMPRESS_WHOLE;
}

} // namespace
} // namespace zel

using namespace zel;

uint32_t compress_mat(zel_api_handle_t *handle, void *tlv_array, uint32_t *size, uint32_t mat_type, const void *record,
                      uint32_t mode, uint32_t app_type)
{
    if (mode == MAT_TRAVERSE_FREE)
        return ZEL_COMPRESS_WHOLE;
    if (mat_type == ZEL_MAT_TYPE_MATCH)
        return compress(handle, tlv_array, size, *static_cast<const zel_match_t *>(record), mode, app_type);
    if (mat_type == ZEL_MAT_TYPE_ACTION)
        return compress(handle, tlv_array, size, *static_cast<const zel_action_t *>(record), mode, app_type);
    if (mat_type != ZEL_MAT_TYPE_NONE && facts_of(mat_type).start == 0)
        trace(*handle, Severity::error, function, "unknown mat type: %d"_trace, mat_type);
    return ZEL_COMPRESS_WHOLE;
}
